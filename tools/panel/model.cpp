#include "panel/model.h"

#include <algorithm>
#include <chrono>

#include <nlohmann/json.hpp>

#include "parent_client/client.h"
#include "router/link_texts.h"

namespace {

using json = nlohmann::json;

// Every text in a JSON event went through panel_text, so dump cannot meet a
// byte it would throw on; should one slip through, it is replaced, never thrown.
std::string dump(const json& j) { return j.dump(-1, ' ', false, json::error_handler_t::replace); }

std::int64_t wall_ms() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

long count(const panel_model& m, const char* which) {
  return std::max(0L, tables_count(*m.tables, which));
}

// Why an output or input position is not one of the active ones; "" when it is.
std::string out_of_range(const panel_model& m, const std::string& what, long position) {
  const long n = count(m, (what + "s").c_str());
  if (position >= 0 && position < n) return "";
  return what + " " + std::to_string(position) + " is not one of the " + std::to_string(n) +
         " active " + what + "s";
}

json names(const std::map<long, std::string>& table) {
  json list = json::array();
  for (const auto& [position, name] : table) {
    while (static_cast<long>(list.size()) < position) list.push_back("");
    list.push_back(panel_text(name));
  }
  return list;
}

json info(const panel_model& m) {
  const auto field = [&m](const char* name) {
    const auto it = m.tables->info.find(name);
    return it == m.tables->info.end() ? std::string() : panel_text(it->second);
  };
  return {{"t", "info"},
          {"model", field("model")},
          {"firmware", field("firmware version")},
          {"inputs", count(m, "inputs")},
          {"outputs", count(m, "outputs")}};
}

json routes(const panel_model& m) {
  json all = json::object();
  for (const auto& [output, input] : m.tables->routes) all[std::to_string(output)] = input;
  return all;
}

json pending(const panel_model& m) {
  json all = json::object();
  for (const auto& [output, p] : m.pending) {
    all[std::to_string(output)] = {
        {"input", p.input}, {"by", panel_text(p.by)}, {"unconfirmed", p.unconfirmed},
        {"refused", panel_text(p.refused)}};
  }
  return all;
}

panel_event pending_event(const panel_model& m) {
  return {dump({{"t", "pending"}, {"pending", pending(m)}})};
}

panel_event link_event(const panel_model& m) {
  return {dump({{"t", "link"}, {"link", m.link}, {"tally_at", m.tally_at}})};
}

void set_link(panel_model& m, const std::string& link, panel_events& events) {
  if (link == m.link) return;
  if (m.link == "connected") m.tally_at = wall_ms();
  m.link = link;
  events.push_back(link_event(m));
}

// A routing report settles a take when it shows the output routed as asked;
// one already marked unconfirmed is settled by any report of its output, lit
// or not, so the mark never outlives what the switcher says.
bool settle_pending(panel_model& m, const parent_message& report) {
  bool any = false;
  for (auto it = m.pending.begin(); it != m.pending.end();) {
    const auto route = m.tables->routes.find(it->first);
    const bool confirmed = route != m.tables->routes.end() && route->second == it->second.input;
    const bool reported =
        report.fields.count("o" + std::to_string(it->first) + ".input.all") != 0;
    if (confirmed || (it->second.unconfirmed && reported)) {
      it = m.pending.erase(it);
      any = true;
    } else {
      ++it;
    }
  }
  return any;
}

const char* level_name(diag_level level) {
  switch (level) {
    case diag_level::err: return "err";
    case diag_level::warn: return "warn";
    case diag_level::note: return "note";
    case diag_level::dbg: return "dbg";
  }
  return "err";
}

// Why no take can go while the link is as it is; "" when connected.
std::string link_refusal(const panel_model& m) {
  if (m.link == "connected") return "";
  if (m.link == "ended") return "the backend has ended: nothing can be taken";
  if (m.link == "lost") {
    return "the switcher link is lost: takes are refused until it is connected again";
  }
  return "the switcher link is not connected yet (" + m.link +
         "): takes are refused until it is";
}

void keep(std::deque<panel_diag>& ring, panel_diag d) {
  ring.push_back(std::move(d));
  if (ring.size() > panel_diag_lines) ring.pop_front();
}

}  // namespace

std::string panel_text(const std::string& bytes) {
  std::string out;
  out.reserve(bytes.size());
  const auto byte = [&bytes](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
  for (std::size_t i = 0; i < bytes.size();) {
    const unsigned char b = byte(i);
    // The length of a well-formed sequence starting here, 0 when none does:
    // no overlong forms, no surrogates, nothing past U+10FFFF.
    std::size_t n = 0;
    if (b < 0x80) {
      n = 1;
    } else if (b >= 0xC2 && b <= 0xDF) {
      n = 2;
    } else if (b >= 0xE0 && b <= 0xF4) {
      n = b <= 0xEF ? 3 : 4;
    }
    for (std::size_t k = 1; n > 1 && k < n; ++k) {
      if (i + k >= bytes.size() || (byte(i + k) & 0xC0) != 0x80) n = 0;
    }
    if (n >= 3) {
      const unsigned char c = byte(i + 1);
      const bool bad = (b == 0xE0 && c < 0xA0) || (b == 0xED && c > 0x9F) ||
                       (b == 0xF0 && c < 0x90) || (b == 0xF4 && c > 0x8F);
      if (bad) n = 0;
    }
    if (n > 0) {
      out.append(bytes, i, n);
      i += n;
    } else {
      // The byte as the Latin-1 character it would be.
      out += static_cast<char>(0xC0 | (b >> 6));
      out += static_cast<char>(0x80 | (b & 0x3F));
      ++i;
    }
  }
  return out;
}

panel_events model_read_record(panel_model& m, const parent_message& record,
                               const std::vector<route_seen>& changes) {
  const std::string kind = tables_report_kind(record);
  panel_events events;
  if (kind == "info") {
    events.push_back({dump(info(m))});
  } else if (kind == "inputs" || kind == "outputs") {
    const bool outputs = kind == "outputs";
    events.push_back({dump({{"t", "names"},
                            {"which", kind},
                            {"names", names(outputs ? m.tables->outputs : m.tables->inputs)}})});
  } else if (kind == "routes") {
    json changed = json::object();
    for (const route_seen& c : changes) changed[std::to_string(c.output)] = c.after;
    // When the report came, in wall-clock milliseconds: a browser on the same
    // machine can tell how long it took to show it.
    if (!changed.empty()) {
      events.push_back({dump({{"t", "routes"}, {"routes", changed}, {"at", wall_ms()}})});
    }
    if (settle_pending(m, record)) events.push_back(pending_event(m));
  }
  // The routing report at the end of a synchronisation, or the names that
  // follow it, show the link in use.
  if ((kind == "routes" || kind == "outputs") && m.link == "synchronising") {
    set_link(m, "connected", events);
  }
  return events;
}

panel_events model_read_diag(panel_model& m, const std::string& line) {
  const diag_level level = client_diag_level(line);
  panel_diag d{level_name(level), panel_text(line)};
  const bool debug = level == diag_level::dbg;
  panel_events events{
      {dump({{"t", "diag"}, {"level", d.level}, {"text", d.text}}), debug}};
  keep(debug ? m.debug_diags : m.diags, std::move(d));
  if (!m.ended.empty()) return events;
  if (link_line_is(line, link_trying)) {
    set_link(m, "connecting", events);
  } else if (link_line_is(line, link_connected) || link_line_is(line, link_connected_at_once)) {
    set_link(m, "synchronising", events);
  } else if (link_line_is(line, link_closed) || link_line_is(line, link_connect_failed) ||
             link_line_is(line, link_cannot_connect)) {
    set_link(m, "lost", events);
  }
  return events;
}

panel_events model_expire(panel_model& m, us_time_t now) {
  bool any = false;
  for (auto& [output, p] : m.pending) {
    if (!p.unconfirmed && now >= p.since + panel_confirm_us) any = p.unconfirmed = true;
  }
  return any ? panel_events{pending_event(m)} : panel_events{};
}

panel_events model_backend_ended(panel_model& m, const std::string& how) {
  m.ended = how;
  panel_events events{{dump({{"t", "ended"}, {"how", panel_text(how)}})}};
  set_link(m, "ended", events);
  return events;
}

panel_refusal model_check_salvo(const panel_model& m, const std::map<long, long>& takes) {
  if (takes.empty()) return {false, "no take: arm a crosspoint first"};
  std::string why = link_refusal(m);
  if (!why.empty()) return {true, why};
  std::string locked;
  for (const auto& [output, input] : takes) {
    why = out_of_range(m, "output", output);
    if (why.empty()) why = out_of_range(m, "input", input);
    if (!why.empty()) return {false, why};
    if (m.locks.count(output) != 0) {
      locked += (locked.empty() ? "" : ", ") + model_label(m, true, output);
    }
  }
  if (locked.empty()) return {};
  return {true, "salvo refused: " + locked + " locked; nothing sent"};
}

panel_events model_takes_sent(panel_model& m, const std::map<long, long>& takes,
                              const std::string& by, us_time_t now) {
  for (const auto& [output, input] : takes) m.pending[output] = {input, by, now, false, ""};
  return {pending_event(m)};
}

std::string model_check_lock(const panel_model& m, long output) {
  return out_of_range(m, "output", output);
}

panel_events model_set_lock(panel_model& m, long output, bool locked) {
  if (locked) m.locks.insert(output);
  else m.locks.erase(output);
  return {{dump({{"t", "locks"}, {"locks", m.locks}})}};
}

panel_events model_take_refused(panel_model& m, long output, const std::string& code) {
  const auto it = m.pending.find(output);
  if (it == m.pending.end()) return {};
  it->second.unconfirmed = true;
  it->second.refused = code;
  return {pending_event(m)};
}

std::string model_dismiss(panel_model& m, long output, panel_events& events) {
  const auto it = m.pending.find(output);
  if (it == m.pending.end() || !it->second.unconfirmed) {
    return "no unconfirmed take on " + model_label(m, true, output);
  }
  m.pending.erase(it);
  events.push_back(pending_event(m));
  return "";
}

panel_events model_error(const std::string& text) {
  return {{dump({{"t", "error"}, {"text", panel_text(text)}})}};
}

std::string model_label(const panel_model& m, bool output, long position) {
  std::string name = panel_text(tables_name(*m.tables, output, position));
  if (name.empty()) name = output ? "output" : "input";
  return name + " (" + std::to_string(position) + ")";
}

std::string model_state(const panel_model& m, bool debug) {
  json diags = json::array();
  for (const panel_diag& d : m.diags) diags.push_back({{"level", d.level}, {"text", d.text}});
  for (const panel_diag& d : m.debug_diags) {
    if (debug) diags.push_back({{"level", d.level}, {"text", d.text}});
  }
  return dump({{"t", "state"},
               {"info", info(m)},
               {"outputs", names(m.tables->outputs)},
               {"inputs", names(m.tables->inputs)},
               {"routes", routes(m)},
               {"pending", pending(m)},
               {"locks", m.locks},
               {"link", m.link},
               {"tally_at", m.tally_at},
               {"diags", diags},
               {"ended", panel_text(m.ended)}});
}

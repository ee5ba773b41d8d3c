#include "panel/model.h"

#include <chrono>

#include <nlohmann/json.hpp>

#include "parent_client/client.h"

namespace {

using json = nlohmann::json;

long count(const panel_model& m, const char* which) {
  return std::max(0L, tables_count(m.tables, which));
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
    list.push_back(name);
  }
  return list;
}

json info(const panel_model& m) {
  const auto field = [&m](const char* name) {
    const auto it = m.tables.info.find(name);
    return it == m.tables.info.end() ? std::string() : it->second;
  };
  return {{"t", "info"},
          {"model", field("model")},
          {"firmware", field("firmware version")},
          {"inputs", count(m, "inputs")},
          {"outputs", count(m, "outputs")}};
}

json routes(const panel_model& m) {
  json all = json::object();
  for (const auto& [output, input] : m.tables.routes) all[std::to_string(output)] = input;
  return all;
}

json pending(const panel_model& m) {
  json all = json::object();
  for (const auto& [output, p] : m.pending) {
    all[std::to_string(output)] = {{"input", p.input}, {"unconfirmed", p.unconfirmed}};
  }
  return all;
}

std::string pending_event(const panel_model& m) {
  return json{{"t", "pending"}, {"pending", pending(m)}}.dump();
}

std::string link_event(const panel_model& m) {
  return json{{"t", "link"}, {"link", m.link}}.dump();
}

// A take is confirmed when the switcher reports its output routed as asked.
bool confirm_pending(panel_model& m) {
  bool any = false;
  for (auto it = m.pending.begin(); it != m.pending.end();) {
    const auto route = m.tables.routes.find(it->first);
    if (route != m.tables.routes.end() && route->second == it->second.input) {
      it = m.pending.erase(it);
      any = true;
    } else {
      ++it;
    }
  }
  return any;
}

bool has(const std::string& line, const char* text) { return line.find(text) != std::string::npos; }

const char* level_name(diag_level level) {
  switch (level) {
    case diag_level::err: return "err";
    case diag_level::warn: return "warn";
    case diag_level::note: return "note";
    case diag_level::dbg: return "dbg";
  }
  return "err";
}

}  // namespace

panel_events model_take_record(panel_model& m, const parent_message& record) {
  std::vector<route_seen> changes;
  tables_apply(m.tables, record, changes);
  const std::string kind = tables_report_kind(record);
  panel_events events;
  if (kind == "info") {
    events.push_back(info(m).dump());
  } else if (kind == "inputs" || kind == "outputs") {
    const bool outputs = kind == "outputs";
    events.push_back(json{{"t", "names"},
                          {"which", kind},
                          {"names", names(outputs ? m.tables.outputs : m.tables.inputs)}}
                         .dump());
  } else if (kind == "routes") {
    json changed = json::object();
    for (const route_seen& c : changes) changed[std::to_string(c.output)] = c.after;
    // When the report came, in wall-clock milliseconds: a browser on the same
    // machine can tell how long it took to show it.
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::system_clock::now().time_since_epoch());
    if (!changed.empty()) {
      events.push_back(json{{"t", "routes"}, {"routes", changed}, {"at", ms.count()}}.dump());
    }
    if (confirm_pending(m)) events.push_back(pending_event(m));
  }
  // The routing report at the end of a synchronisation, or the names that
  // follow it, show the link in use.
  if ((kind == "routes" || kind == "outputs") && m.link == "synchronising") {
    m.link = "connected";
    events.push_back(link_event(m));
  }
  return events;
}

panel_events model_take_diag(panel_model& m, const std::string& line) {
  const diag_level level = client_diag_level(line);
  m.diags.push_back({level_name(level), line});
  if (m.diags.size() > panel_diag_lines) m.diags.pop_front();
  panel_events events{
      json{{"t", "diag"}, {"level", m.diags.back().level}, {"text", line}}.dump()};
  std::string link = m.link;
  if (has(line, "<NOTE>Trying to connect to router")) {
    link = "connecting";
  } else if (has(line, "<NOTE>Connection sucessful.") || has(line, "<NOTE>Connected to router")) {
    link = "synchronising";
  } else if (has(line, "<NOTE>Connection to router closed") ||
             has(line, "<ERR>Connection failed") || has(line, "<ERR>Failed to connect")) {
    link = "lost";
  }
  if (link != m.link && m.ended.empty()) {
    m.link = link;
    events.push_back(link_event(m));
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
  m.link = "ended";
  return {json{{"t", "ended"}, {"how", how}}.dump(), link_event(m)};
}

std::string model_check_take(const panel_model& m, long output, long input) {
  std::string why = out_of_range(m, "output", output);
  if (why.empty()) why = out_of_range(m, "input", input);
  if (why.empty() && m.locks.count(output) != 0) why = "output " + std::to_string(output) + " is locked";
  return why;
}

panel_events model_takes_sent(panel_model& m, const std::map<long, long>& takes, us_time_t now) {
  for (const auto& [output, input] : takes) m.pending[output] = {input, now, false};
  return {pending_event(m)};
}

std::string model_check_lock(const panel_model& m, long output) {
  return out_of_range(m, "output", output);
}

panel_events model_set_lock(panel_model& m, long output, bool locked) {
  if (locked) m.locks.insert(output);
  else m.locks.erase(output);
  return {json{{"t", "locks"}, {"locks", m.locks}}.dump()};
}

panel_events model_error(const std::string& text) {
  return {json{{"t", "error"}, {"text", text}}.dump()};
}

std::string model_state(const panel_model& m) {
  json diags = json::array();
  for (const panel_diag& d : m.diags) diags.push_back({{"level", d.level}, {"text", d.text}});
  return json{{"t", "state"},
              {"info", info(m)},
              {"outputs", names(m.tables.outputs)},
              {"inputs", names(m.tables.inputs)},
              {"routes", routes(m)},
              {"pending", pending(m)},
              {"locks", m.locks},
              {"link", m.link},
              {"diags", diags},
              {"ended", m.ended}}
      .dump();
}

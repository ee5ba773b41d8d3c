#include "soak/script.h"

#include <cstdlib>

#include "switcher_emulator/chaos.h"

namespace {

// Request kinds and their weights: a parent mostly adds changes, flushes
// now and then, and sometimes thinks better of it or asks for a report.
struct request_kind {
  const char* name;
  std::uint32_t weight;
};
constexpr request_kind kinds[] = {
    {"add", 10}, {"flush", 4}, {"discard", 1}, {"report outputs", 1}, {"report inputs", 1},
};
constexpr std::uint32_t kinds_weight = 17;

std::uint64_t draw(soak_parent& p, std::uint64_t n) { return emulator_random(p.rng) % n; }

const char* draw_kind(soak_parent& p) {
  std::uint64_t pick = draw(p, kinds_weight);
  std::size_t i = 0;
  while (pick >= kinds[i].weight) pick -= kinds[i++].weight;
  return kinds[i].name;
}

// An "add" for a random route; one in sixteen names an output the switcher
// does not have or a control other than "all", which the backend must take
// in its stride.
void fill_add(soak_parent& p, const soak_layout& layout, parent_message& m) {
  m.fields["queue"] = "add";
  m.fields["from input"] = std::to_string(draw(p, layout.inputs));
  m.fields["to output"] = std::to_string(draw(p, layout.outputs));
  const std::uint64_t odd = draw(p, 32);
  if (odd == 0) m.fields["to output"] = std::to_string(layout.outputs + draw(p, 100));
  if (odd == 1) m.fields["control"] = "none";
  if (odd == 2) m.fields["control"] = "all";
}

void fail(soak_parent& p, const std::string& why) {
  if (p.failure.empty()) p.failure = why;
}

// A routing report lists ".input.all" fields; an outputs report ".name" ones.
void take_routing_report(soak_parent& p, const soak_layout& layout, const parent_message& r) {
  static const std::string suffix = ".input.all";
  std::uint32_t listed = 0;
  for (const auto& [name, value] : r.fields) {
    if (name.size() <= suffix.size() + 1 || name[0] != 'o' ||
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0) {
      continue;
    }
    const std::int64_t output = std::atoll(name.c_str() + 1);
    const std::int64_t input = value == "none" ? -1 : std::atoll(value.c_str());
    if (output < 0 || output >= layout.outputs || input < -1 || input >= layout.inputs) {
      std::string why = "routing report names a route the switcher cannot have: ";
      fail(p, why.append(name).append("=").append(value));
      continue;
    }
    p.routes[output] = input;
    ++listed;
  }
  // An outputs report of names shares the command and lists no routes.
  if (listed == 0) return;
  ++p.routing_reports;
  if (listed == layout.outputs) ++p.full_reports;
}

void take_reply(soak_parent& p, const parent_message& r, us_time_t now) {
  const auto it = p.pending.find(r.id);
  if (it == p.pending.end()) {
    fail(p, "reply with id \"" + r.id + "\" answers no waiting request");
    return;
  }
  const soak_request& want = it->second;
  if (r.command != want.command || r.error != want.error || !r.fields.empty()) {
    fail(p, "reply to request " + r.id + " has command \"" + r.command + "\" and error \"" +
                r.error + "\"; wanted command \"" + want.command + "\" and error \"" +
                want.error + "\"");
  }
  const us_time_t waited = now - it->second.sent;
  if (waited > p.longest_wait) p.longest_wait = waited;
  p.pending.erase(it);
  ++p.answered;
}

// A record the backend drops without a word, or refuses with an error reply
// (noted as pending under a "j" id), or bytes outside any record.
std::string junk_record(soak_parent& p, us_time_t now) {
  ++p.junk;
  const std::string id = "j" + std::to_string(p.next_id++);
  const auto refused = [&](const std::string& text, const char* command, const char* error) {
    p.pending[id] = {command, now, error};
    return text;
  };
  switch (draw(p, 9)) {
    case 0:  // unknown type
      return "*COMMAND=route output\n*TYPE=bogus\n*ID=" + id + "\nqueue=flush\n\n";
    case 1:  // no type at all
      return "*COMMAND=report\n*ID=" + id + "\nwhat=inputs\n\n";
    case 2:
      return refused("*COMMAND=jump\n*TYPE=command\n*ID=" + id + "\n\n", "jump",
                     "Unknown command jump");
    case 3:
      return refused("*COMMAND=ping\n*TYPE=message\n*ID=" + id + "\nx=1\n\n", "ping",
                     "Message ping ignored");
    case 4:  // no "what"
      return refused("*COMMAND=report\n*TYPE=command\n*ID=" + id + "\n\n", "report",
                     "I do not recognize what you are asking for");
    case 5:  // an empty command
      return refused("*COMMAND=\n*TYPE=command\n*ID=" + id + "\nx=\n\n", "",
                     "Unknown command ");
    case 6:  // empty fields: answered, changes nothing
      return refused("*COMMAND=route output\n*TYPE=command\n*ID=" + id +
                         "\nqueue=\nfrom input=\nto output=\n\n",
                     "route output", "");
    case 7:  // a setting nobody knows, and now and then a very long value
      if (draw(p, 16) == 0) {
        const std::string value(std::size_t{64} * 1024, 'v');
        return "*COMMAND=note\n*TYPE=bogus\nvalue=" + value + "\n\n";
      }
      return "*COMMAND=set\n*TYPE=message\nname=colour\nvalue=\n\n";
    default: {  // stray bytes on a line of their own, without "="
      std::string bytes = "\x01\x7f stray";
      bytes += '\0';
      bytes += "\xff\r\n";
      return bytes;
    }
  }
}

// The same record with CR LF line ends, which the backend reads as LF.
std::string with_crlf(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '\n') out += '\r';
    out += c;
  }
  return out;
}

}  // namespace

std::string script_next_request(soak_parent& p, const soak_layout& layout, us_time_t now) {
  const std::string kind = draw_kind(p);
  parent_message m;
  m.type = "command";
  m.id = std::to_string(p.next_id++);
  if (kind == "report outputs" || kind == "report inputs") {
    m.command = "report";
    m.fields["what"] = kind.substr(7);
  } else {
    m.command = "route output";
    if (kind == "add") fill_add(p, layout, m);
    else m.fields["queue"] = kind;
  }
  // Route requests are answered under their command; report requests are
  // answered without one.
  p.pending[m.id] = {m.command == "route output" ? m.command : "", now, ""};
  ++p.sent[kind];
  std::string text;
  parent_message_serialise(m, text);
  if (draw(p, 8) == 0) text = with_crlf(text);
  if (draw(p, 3) == 0) text = junk_record(p, now) + text;
  return text;
}

std::string script_report_flood(soak_parent& p, std::uint64_t n, us_time_t now) {
  ++p.floods;
  std::string text;
  for (std::uint64_t i = 0; i < n; ++i) {
    parent_message m;
    m.type = "command";
    m.command = "report";
    m.id = std::to_string(p.next_id++);
    m.fields["what"] = "outputs";
    p.pending[m.id] = {"", now, ""};
    ++p.sent["report outputs"];
    parent_message_serialise(m, text);
  }
  return text;
}

void script_take_record(soak_parent& p, const soak_layout& layout, const parent_message& record,
                        us_time_t now) {
  if (record.type == "reply") {
    take_reply(p, record, now);
  } else if (record.type == "message" && record.command == "outputs") {
    take_routing_report(p, layout, record);
  } else if (record.type == "message" && record.command == "info") {
    ++p.info_reports;
  } else if (!(record.type == "message" && record.command == "inputs")) {
    fail(p, "unexpected record: *COMMAND=" + record.command + " *TYPE=" + record.type);
  }
}

std::uint64_t script_sent_total(const soak_parent& p) {
  std::uint64_t n = 0;
  for (const auto& [kind, count] : p.sent) n += count;
  return n;
}

std::string script_oldest_pending(const soak_parent& p, us_time_t now, us_time_t& waited) {
  std::string oldest;
  waited = 0;
  for (const auto& [id, req] : p.pending) {
    if (oldest.empty() || now - req.sent > waited) {
      oldest = id;
      waited = now - req.sent;
    }
  }
  return oldest;
}

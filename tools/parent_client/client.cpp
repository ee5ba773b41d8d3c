#include "parent_client/client.h"

#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "model/tables.h"
#include "router/link_texts.h"

namespace {

// Diagnostic lines start with their level's tag, or carry none.
struct level_tag {
  const char* tag;
  diag_level level;
};
constexpr level_tag level_tags[] = {{"<ERR>", diag_level::err},
                                    {"<WARN>", diag_level::warn},
                                    {"<NOTE>", diag_level::note},
                                    {"<DBG>", diag_level::dbg}};

// One line of the backend's standard output. Every empty line ends a record:
// the backend never writes an empty one, since each carries a command or at
// least a type and an id.
void take_output_line(parent_client& c, const std::string& line, us_time_t now) {
  if (!line.empty()) {
    c.partial_text += line + "\n";
    parent_message_parse_line(c.partial, line);
    return;
  }
  client_record r;
  r.text = std::move(c.partial_text);
  r.msg = std::move(c.partial);
  r.at = now;
  tables_apply(c.tables, r.msg, r.changes);
  c.records.push_back(std::move(r));
  c.partial_text.clear();
  parent_message_clear(c.partial);
}

constexpr std::size_t max_refused_kept = 1024;

// The text after the fixed start of the line format writes (link_line_is),
// or false when line is not one of its lines.
bool after_fixed_start(const std::string& line, std::string_view format, std::string& rest) {
  if (!link_line_is(line, format)) return false;
  rest = line.substr(format.find_first_of("%\n"));
  return true;
}

// The TAB-separated fields of a message's text.
std::vector<std::string> fields_of(const std::string& text) {
  std::vector<std::string> fields;
  for (std::size_t at = 0;;) {
    const std::size_t tab = text.find('\t', at);
    fields.push_back(text.substr(at, tab - at));
    if (tab == std::string::npos) return fields;
    at = tab + 1;
  }
}

// Follows takes through the frames' debug lines: a "TI" sent, then its answer.
// Frames go one exchange at a time, so the answer after a "TI" is its own.
void follow_takes(parent_client& c, const std::string& line) {
  std::string text;
  if (after_fixed_start(line, outputs_range_line, text)) {
    c.output_base = std::strtoll(text.c_str(), nullptr, 10);
    return;
  }
  if (after_fixed_start(line, link_frame_sent, text)) {
    // SOH, then protocol letter, sequence flag and the command's letters.
    const std::vector<std::string> f = fields_of(text);
    const bool take = f.size() >= 2 && f[0].size() == 5 && f[0].compare(3, 2, "TI") == 0;
    c.take_awaiting_answer = take ? std::strtoll(f[1].c_str(), nullptr, 16) : -1;
    return;
  }
  if (c.take_awaiting_answer < 0) return;
  std::string refusal;
  if (after_fixed_start(line, link_nak_received, text)) {
    refusal = "NAK " + text;
  } else if (after_fixed_start(line, link_message_received, text)) {
    // The error reply that answers a take: its code, then "TI" and the
    // checksum. Any other message is not the answer.
    const std::vector<std::string> f = fields_of(text);
    if (f.size() < 3 || f[0].size() < 4 || f[0].compare(2, 2, "ER") != 0 ||
        f[2].compare(0, 2, "TI") != 0) {
      return;
    }
    if (f[1] != "00") refusal = f[1];
  } else {
    return;
  }
  const std::int64_t output = c.take_awaiting_answer - c.output_base;
  if (!refusal.empty()) {
    c.refused.push_back({c.output_base >= 0 && output >= 0 ? static_cast<long>(output) : -1, refusal});
    // Kept for a reader that takes them; one that never does holds the newest.
    if (c.refused.size() > max_refused_kept) c.refused.pop_front();
  }
  c.take_awaiting_answer = -1;
}

}  // namespace

bool client_start(parent_client& c, const std::string& path, const std::vector<std::string>& args,
                  const std::vector<std::string>& wrapper) {
  std::vector<std::string> argv = wrapper;
  argv.push_back(path);
  argv.insert(argv.end(), args.begin(), args.end());
  return child_start(c.child, wrapper.empty() ? path : wrapper.front(), argv);
}

void client_take_output(parent_client& c) {
  const us_time_t now = monotonic_now_us();
  std::string line;
  while (child_take_line(c.child.out_buf, line)) take_output_line(c, line, now);
  while (child_take_line(c.child.err_buf, line)) {
    follow_takes(c, line);
    c.diags.push_back({client_diag_level(line), line, now});
  }
}

void client_pump(parent_client& c, int timeout_ms) {
  child_pump(timeout_ms);
  client_take_output(c);
}

void client_send_text(parent_client& c, const std::string& text) { child_write(c.child, text); }

std::string client_send(parent_client& c, parent_message req) {
  req.id = std::to_string(c.next_id++);
  std::string text;
  parent_message_serialise(req, text);
  client_send_text(c, text);
  return req.id;
}

bool client_wait_reply(parent_client& c, const std::string& id, int timeout_ms,
                       client_record& reply) {
  bool found = false;
  (void)child_wait(
      [&] {
        client_take_output(c);
        for (auto r = c.records.begin(); r != c.records.end(); ++r) {
          if (r->msg.type != "reply" || r->msg.id != id) continue;
          reply = std::move(*r);
          // Erasing ends the walk: the iterator is gone with the element.
          c.records.erase(r);
          found = true;
          break;
        }
        return found;
      },
      timeout_ms);
  return found;
}

bool client_request(parent_client& c, const parent_message& req, int timeout_ms,
                    client_record& reply) {
  return client_wait_reply(c, client_send(c, req), timeout_ms, reply);
}

bool client_next_record(parent_client& c, int timeout_ms, client_record& record) {
  const auto arrived = [&c] {
    client_take_output(c);
    return !c.records.empty();
  };
  if (!child_wait(arrived, timeout_ms)) return false;
  record = std::move(c.records.front());
  c.records.pop_front();
  return true;
}

bool client_wait_diag(parent_client& c, const std::string& text, int timeout_ms,
                      client_diag& line) {
  const auto arrived = [&] {
    client_take_output(c);
    while (!c.diags.empty()) {
      line = std::move(c.diags.front());
      c.diags.pop_front();
      if (line.text.find(text) != std::string::npos) return true;
    }
    return false;
  };
  return child_wait(arrived, timeout_ms);
}

parent_message client_route_request(const std::string& queue, long input, long output) {
  parent_message m;
  m.type = "command";
  m.command = "route output";
  m.fields["queue"] = queue;
  if (input >= 0) m.fields["from input"] = std::to_string(input);
  if (output >= 0) m.fields["to output"] = std::to_string(output);
  return m;
}

parent_message client_report_request(const std::string& what) {
  parent_message m;
  m.type = "command";
  m.command = "report";
  m.fields["what"] = what;
  return m;
}

diag_level client_diag_level(const std::string& line) {
  for (const level_tag& t : level_tags) {
    if (line.rfind(t.tag, 0) == 0) return t.level;
  }
  return diag_level::err;
}

std::string client_start_emulator(child_process& emu, const std::string& path,
                                  const std::vector<std::string>& extra, int timeout_ms) {
  std::vector<std::string> argv{"switcher_emulator", "--port", "0"};
  argv.insert(argv.end(), extra.begin(), extra.end());
  emu.end_of_input_ms = 0;  // its controls end, it goes on serving
  if (!child_start(emu, path, argv)) return "";
  // Scripts and tests find the port as the last word of its first line.
  std::string first;
  if (!child_wait([&] { return child_take_line(emu.out_buf, first) || emu.reaped; }, timeout_ms) ||
      first.empty()) {
    std::fprintf(stderr, "the switcher emulator did not start: %s\n", emu.err_buf.c_str());
    return "";
  }
  return first.substr(first.find_last_of(' ') + 1);
}

std::string client_emulator_config(const std::string& port, const std::string& address) {
  return "ip address = " + address + "\nport = " + port + "\n";
}

std::string client_start_emulated(child_process& emu, const std::string& path,
                                  const std::vector<std::string>& options, const temp_dir& dir,
                                  int timeout_ms, std::string* port) {
  const std::string listening = client_start_emulator(emu, path, options, timeout_ms);
  if (listening.empty()) return "";
  if (dir.path.empty()) {
    std::fprintf(stderr, "cannot make a temporary directory for the configuration\n");
    return "";
  }
  if (port != nullptr) *port = listening;
  return dir.write("router.cfg", client_emulator_config(listening));
}

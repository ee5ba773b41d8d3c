#include "parent_client/client.h"

#include <cstdio>

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

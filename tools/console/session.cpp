#include "console/session.h"

#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>

#include "console/commands.h"
#include "console/terminal.h"
#include "console/view.h"
#include "parent_client/temp_dir.h"

namespace {

volatile std::sig_atomic_t stop_requested = 0;

void on_signal(int) { stop_requested = 1; }

console_options opts;
parent_client backend;
child_process emulator;        // runs only with --emulator
std::unique_ptr<temp_dir> config_dir;  // the emulator's configuration, with --emulator
diag_level shown_level = diag_level::note;
bool failed = false;           // an error was shown
bool quit = false;
bool ended_alone = false;      // the backend ended without being asked
bool in_raw = false;           // lines go into raw_text until an empty one
std::string raw_text;
std::string emulator_answer;   // the last "ok" or "error ..." of its controls
std::map<std::string, int> reports_seen;  // reports shown, by command

constexpr int step_ms = 50;

void show_emulator_line(const std::string& line, bool from_stdout) {
  if (from_stdout && (line == "ok" || line.rfind("error", 0) == 0)) emulator_answer = line;
  terminal_print("emulator: " + line);
}

// Pumps and shows what arrives until done() holds (true), timeout_ms pass,
// the backend ends or a signal asks to stop (false). done() comes first after
// each pump, so that it sees what arrived before it is shown.
bool wait_showing(const std::function<bool()>& done, int timeout_ms) {
  const us_time_t end = monotonic_now_us() + static_cast<us_time_t>(timeout_ms) * 1000;
  for (;;) {
    if (done()) return true;
    session_show();
    const us_time_t now = monotonic_now_us();
    if (now >= end || stop_requested != 0 || backend.child.reaped) return false;
    client_pump(backend, static_cast<int>(std::min<us_time_t>((end - now) / 1000 + 1, step_ms)));
  }
}


// Shows the backend's records in their order up to the reply with id, which
// it takes into reply (true); shows them all when none is that reply.
bool show_records(const std::string& id, client_record* reply) {
  client_take_output(backend);
  for (; !backend.records.empty(); backend.records.pop_front()) {
    client_record& r = backend.records.front();
    if (reply != nullptr && r.msg.type == "reply" && r.msg.id == id) {
      *reply = std::move(r);
      backend.records.pop_front();
      return true;
    }
    ++reports_seen[tables_report_kind(r.msg)];
    for (const std::string& line : view_record(backend.tables, r)) terminal_print(line);
  }
  return false;
}

// Waits for the reply with id and shows its error, if any; true without one.
bool wait_reply(const std::string& id, const std::string& what) {
  client_record reply;
  if (!wait_showing([&] { return show_records(id, &reply); }, opts.reply_ms)) {
    console_error(what + " (id " + id + "): no reply" +
                  (backend.child.reaped ? "" : " within " + std::to_string(opts.reply_ms / 1000) +
                                                   " s"));
    return false;
  }
  if (!reply.msg.error.empty()) {
    console_error(what + " (id " + id + "): " + reply.msg.error);
    return false;
  }
  terminal_print("ok: " + what + " (id " + id + ")");
  return true;
}

}  // namespace

void console_error(const std::string& text) {
  terminal_print("error: " + text);
  failed = true;
}

bool console_request(const parent_message& req, const std::string& what) {
  return wait_reply(client_send(backend, req), what);
}

void console_send_text(const std::string& text) { client_send_text(backend, text); }

const report_tables& console_tables() { return backend.tables; }

void console_set_level(diag_level level) { shown_level = level; }

void console_start_raw() { in_raw = true; }

void console_quit() { quit = true; }

bool console_wait_tables(int timeout_ms) {
  // The tables change as records are read, so what has arrived is shown first.
  const report_tables& t = backend.tables;
  return wait_showing(
      [&t] {
        session_show();
        return t.have_inputs && t.have_outputs && t.have_routes;
      },
      timeout_ms);
}

bool console_wait_report(const std::string& command, int timeout_ms) {
  const int seen = reports_seen[command];
  return wait_showing([&] { return reports_seen[command] > seen; }, timeout_ms);
}

void console_sleep(int ms) { (void)wait_showing([] { return false; }, ms); }

bool console_emulator(const std::string& control) {
  if (!opts.use_emulator) {
    console_error("no emulator runs: start the console with --emulator");
    return false;
  }
  emulator_answer.clear();
  child_write(emulator, control + "\n");
  if (!wait_showing([] { return !emulator_answer.empty(); }, 5000)) {
    console_error("the emulator did not answer \"" + control + "\"");
    return false;
  }
  if (emulator_answer != "ok") failed = true;
  return emulator_answer == "ok";
}

bool session_start(const console_options& o) {
  opts = o;
  for (int sig : {SIGINT, SIGTERM, SIGHUP}) std::signal(sig, on_signal);
  std::string config = o.config;
  if (o.use_emulator) {
    const std::string port = client_start_emulator(emulator, o.emulator, o.emulator_options, 10000);
    if (port.empty()) return false;
    terminal_print("switcher emulator listening on 127.0.0.1 port " + port);
    config_dir = std::make_unique<temp_dir>();
    if (config_dir->path.empty()) {
      terminal_print("cannot make a temporary directory for the configuration");
      return false;
    }
    config = config_dir->write("router.cfg", "ip address = 127.0.0.1\nport = " + port + "\n");
  }
  if (!client_start(backend, o.backend, {"--file", config})) return false;
  terminal_print("backend started: " + o.backend + " --file " + config);
  if (terminal_interactive()) terminal_print("type help for the commands");
  return true;
}

void session_show() {
  for (; !backend.diags.empty(); backend.diags.pop_front()) {
    const client_diag& d = backend.diags.front();
    if (d.level <= shown_level) terminal_print("backend: " + d.text);
  }
  (void)show_records("", nullptr);
  std::string line;
  while (child_take_line(emulator.out_buf, line)) show_emulator_line(line, true);
  while (child_take_line(emulator.err_buf, line)) show_emulator_line(line, false);
  if (backend.child.reaped && !quit && !ended_alone) {
    // Its last words come before the news of its end.
    (void)child_wait_exit(backend.child, 1000);
    ended_alone = true;
    session_show();
    console_error("the backend ended by itself: " + child_describe_end(backend.child));
  }
}

void session_line(const std::string& line) {
  if (in_raw || line.find_first_not_of(" \t") != std::string::npos) {
    terminal_echo(session_prompt(), line);
  }
  if (!in_raw) {
    commands_run(line);
    return;
  }
  if (!line.empty()) {
    raw_text += line + "\n";
    return;
  }
  in_raw = false;
  parent_message msg;
  std::string rest = raw_text;
  for (std::string l; child_take_line(rest, l);) parent_message_parse_line(msg, l);
  const std::string text = raw_text + "\n";
  raw_text.clear();
  // Commands with an id always get a reply; other records may not.
  if (msg.type == "command" && !msg.id.empty()) {
    (void)console_raw_request(text, msg.id);
    return;
  }
  console_send_text(text);
  terminal_print("sent");
}

bool console_raw_request(const std::string& text, const std::string& id) {
  console_send_text(text);
  return wait_reply(id, "raw record");
}

std::string session_prompt() { return in_raw ? "raw> " : "> "; }

bool session_over() {
  if (stop_requested != 0) quit = true;
  return quit || ended_alone;
}

int session_finish() {
  quit = true;
  terminal_close();
  if (!backend.child.reaped) {
    child_stop(backend.child);
    client_take_output(backend);
    session_show();
    terminal_print("backend stopped: " + child_describe_end(backend.child));
  }
  child_stop(emulator);
  session_show();
  return failed ? 1 : 0;
}

#include "console/session.h"

#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <memory>
#include <set>

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
bool stopping = false;         // the session stops the children: their ends are no news
bool spoke = false;            // the backend wrote a record
bool ended_alone = false;      // the backend ended without being asked
bool emulator_gone = false;    // the emulator ended, or was asked to quit
bool emulator_died = false;    // the emulator ended without being asked
bool emulator_quitting = false;  // "emulator quit" was sent
bool in_raw = false;           // lines go into raw_text until an empty one
std::string raw_text;
std::string emulator_answer;   // the last "ok" or "error ..." of its controls
std::map<std::string, int> reports_seen;  // reports shown, by kind
int route_changes_seen = 0;    // routing reports that changed a route
std::set<long> unnamed_routes;  // outputs routed before the names were known
std::set<long> refused_outputs;  // takes the switcher refused since the last wait for routes

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
    if (now >= end || stop_requested != 0 || backend.child.reaped || emulator_died) return false;
    client_pump(backend, static_cast<int>(std::min<us_time_t>((end - now) / 1000 + 1, step_ms)));
  }
}

// Routes are shown with the names of their output and input, so the first
// routing report, which comes before the names reports, waits for them.
void show_routes(const client_record& r) {
  const report_tables& t = backend.tables;
  if (!t.have_inputs || !t.have_outputs) {
    for (const route_seen& c : r.changes) unnamed_routes.insert(c.output);
    return;
  }
  for (const std::string& line : view_record(t, r)) terminal_print(line);
}

void show_unnamed_routes() {
  const report_tables& t = backend.tables;
  if (unnamed_routes.empty() || !t.have_inputs || !t.have_outputs) return;
  for (long output : unnamed_routes) {
    const auto route = t.routes.find(output);
    if (route != t.routes.end()) terminal_print(view_route(t, output, route->second));
  }
  unnamed_routes.clear();
}

// Shows the backend's records in their order up to the reply with id, which
// it takes into reply (true); shows them all when none is that reply.
bool show_records(const std::string& id, client_record* reply) {
  client_take_output(backend);
  for (; !backend.records.empty(); backend.records.pop_front()) {
    client_record& r = backend.records.front();
    spoke = true;
    if (reply != nullptr && r.msg.type == "reply" && r.msg.id == id) {
      *reply = std::move(r);
      backend.records.pop_front();
      return true;
    }
    const std::string kind = tables_report_kind(r.msg);
    ++reports_seen[kind];
    if (kind == "routes") {
      route_changes_seen += r.changes.empty() ? 0 : 1;
      show_routes(r);
    } else {
      for (const std::string& line : view_record(backend.tables, r)) terminal_print(line);
    }
    show_unnamed_routes();
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

// Whether the backend has reported the names of its outputs (or inputs). An
// outputs report of no names cannot be told from a routing report of no
// routes, so with no outputs they count as known once the inputs are.
bool names_known(const report_tables& t, bool output) {
  if (!output) return t.have_inputs;
  return t.have_outputs || (t.have_inputs && tables_count(t, "outputs") == 0);
}

// A child's end that the session did not ask for is an error of the session.
void notice_ends() {
  if (stopping) return;
  if (backend.child.reaped && !ended_alone) {
    // Its last words come before the news of its end.
    (void)child_wait_exit(backend.child, 1000);
    ended_alone = true;
    session_show();
    console_error(std::string(spoke ? "the backend ended by itself: " :
                                      "the backend could not start: ") +
                  child_describe_end(backend.child));
  }
  if (opts.parent.use_emulator && emulator.reaped && !emulator_gone) {
    emulator_gone = true;
    if (emulator_quitting) return;
    emulator_died = true;
    console_error("the emulator ended by itself: " + child_describe_end(emulator));
  }
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
        return names_known(t, false) && names_known(t, true) &&
               (t.have_routes || tables_count(t, "outputs") == 0);
      },
      timeout_ms);
}

bool console_wait_names(bool output) {
  const report_tables& t = backend.tables;
  return wait_showing(
      [&t, output] {
        session_show();
        return names_known(t, output);
      },
      opts.reply_ms);
}

bool console_wait_routes(const std::map<long, long>& expected, int timeout_ms) {
  const report_tables& t = backend.tables;
  const auto routed = [&t](long output, long input) {
    const auto route = t.routes.find(output);
    return route != t.routes.end() && route->second == input;
  };
  // A take the switcher refused is not waited for: its error is shown.
  const auto settled = [&routed](long output, long input) {
    return refused_outputs.count(output) != 0 || routed(output, input);
  };
  const int changes = route_changes_seen;
  const bool done = wait_showing(
      [&] {
        session_show();
        if (expected.empty()) return route_changes_seen > changes;
        return std::all_of(expected.begin(), expected.end(),
                           [&](const auto& e) { return settled(e.first, e.second); });
      },
      timeout_ms);
  for (const auto& [output, input] : expected) {
    if (done || settled(output, input)) continue;
    const auto route = t.routes.find(output);
    terminal_print("  wanted " + view_route(t, output, input) + "; the switcher reports " +
                   (route == t.routes.end() ? "no route" : view_route(t, output, route->second)));
  }
  refused_outputs.clear();
  return done;
}

bool console_backend_ended() { return backend.child.reaped; }

bool console_wait_report(const std::string& command, int timeout_ms) {
  const int seen = reports_seen[command];
  return wait_showing([&] { return reports_seen[command] > seen; }, timeout_ms);
}

void console_sleep(int ms) { (void)wait_showing([] { return false; }, ms); }

bool console_emulator(const std::string& control) {
  if (!opts.parent.use_emulator) {
    console_error("no emulator runs: start the console with --emulator");
    return false;
  }
  if (emulator_gone) {
    console_error("the emulator has ended");
    return false;
  }
  emulator_answer.clear();
  // It may end before its "ok" is read: that end was asked for.
  emulator_quitting = emulator_quitting || control == "quit";
  child_write(emulator, control + "\n");
  if (!wait_showing([] { return !emulator_answer.empty() || emulator_gone; }, 5000)) {
    if (!emulator_gone) console_error("the emulator did not answer \"" + control + "\"");
    return false;
  }
  if (emulator_answer.empty() && emulator_quitting) return true;  // ended before its "ok"
  if (emulator_answer != "ok") failed = true;
  return emulator_answer == "ok";
}

bool session_start(const console_options& o) {
  opts = o;
  for (int sig : {SIGINT, SIGTERM, SIGHUP}) std::signal(sig, on_signal);
  const parent_options& p = o.parent;
  std::string config = p.config;
  if (p.use_emulator) {
    config_dir = std::make_unique<temp_dir>();
    std::string port;
    config = client_start_emulated(emulator, p.emulator, p.emulator_options, *config_dir, 10000,
                                   &port);
    if (config.empty()) return false;
    terminal_print("switcher emulator listening on 127.0.0.1 port " + port);
  }
  if (!client_start(backend, p.backend, {"--file", config})) return false;
  terminal_print("backend started: " + p.backend + " --file " + config);
  if (terminal_interactive()) terminal_print("type help for the commands");
  return true;
}

void session_show() {
  for (; !backend.diags.empty(); backend.diags.pop_front()) {
    const client_diag& d = backend.diags.front();
    if (d.level <= shown_level) terminal_print("backend: " + d.text);
  }
  for (; !backend.refused.empty(); backend.refused.pop_front()) {
    refused_outputs.insert(backend.refused.front().output);
    console_error("take " + view_refused(backend.tables, backend.refused.front()));
  }
  (void)show_records("", nullptr);
  std::string line;
  while (child_take_line(emulator.out_buf, line)) show_emulator_line(line, true);
  while (child_take_line(emulator.err_buf, line)) show_emulator_line(line, false);
  notice_ends();
}

bool session_take_line(const std::string& line) {
  if (in_raw || line.find_first_not_of(" \t") != std::string::npos) {
    terminal_echo(session_prompt(), line);
  }
  if (!in_raw) return false;
  if (!line.empty()) {
    raw_text += line + "\n";
    return true;
  }
  in_raw = false;
  parent_message msg;
  std::string rest = raw_text;
  for (std::string l; child_take_line(rest, l);) parent_message_parse_line(msg, l);
  const std::string text = raw_text + "\n";
  raw_text.clear();
  // With an id, commands and messages other than "set" always get a reply.
  if (!msg.id.empty() && (msg.type == "command" || (msg.type == "message" && msg.command != "set"))) {
    (void)console_raw_request(text, msg.id);
    return true;
  }
  console_send_text(text);
  terminal_print("sent");
  return true;
}

bool console_raw_request(const std::string& text, const std::string& id) {
  console_send_text(text);
  return wait_reply(id, "raw record");
}

std::string session_prompt() { return in_raw ? "raw> " : "> "; }

bool session_over() {
  if (stop_requested != 0) quit = true;
  return quit || ended_alone || emulator_died;
}

int session_finish() {
  quit = true;
  terminal_close();
  session_show();  // a backend that ended meanwhile is still news
  stopping = true;
  if (!backend.child.reaped) {
    child_stop(backend.child);
    client_take_output(backend);
    session_show();
    terminal_print("backend stopped: " + child_describe_end(backend.child));
    // The end of its input ends a backend with status 0; anything else,
    // before it said a word, is one that could not start.
    if (child_describe_end(backend.child) != "exit status 0") {
      ended_alone = true;
      console_error(std::string(spoke ? "the backend did not end cleanly: " :
                                        "the backend could not start: ") +
                    child_describe_end(backend.child));
    }
  }
  child_stop(emulator);
  session_show();
  if (ended_alone && !spoke) return 2;
  return failed ? 1 : 0;
}

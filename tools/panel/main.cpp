// zeph_route_panel: a crosspoint panel in the browser. It starts the backend
// as its child, exactly as a parent does (as the console does), on a
// configuration or against the bundled switcher emulator, and serves one page
// that shows the switcher's routes live and routes from the browser. One
// thread, one loop: it waits on the backend's pipes and the web server's
// descriptor together and runs each step to completion.
#include <csignal>
#include <cstdio>
#include <deque>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "panel/events.h"
#include "panel/model.h"
#include "panel/server.h"
#include "parent_client/client.h"
#include "parent_client/options.h"

namespace {

constexpr const char* usage_text =
    "usage: zeph_route_panel [--backend PATH] [--listen ADDR:PORT] [--token TEXT] --file CFG\n"
    "       zeph_route_panel [--backend PATH] [--listen ADDR:PORT] [--token TEXT]\n"
    "                        --emulator [EMULATOR OPTIONS]\n"
    "  --file CFG          start the backend on this configuration\n"
    "  --emulator          start the switcher emulator on a free port and the backend\n"
    "                      against it; every option after it goes to the emulator\n"
    "  --backend PATH      another build of the backend\n"
    "  --listen ADDR:PORT  where to serve the page (127.0.0.1 and a free port);\n"
    "                      another address than loopback needs a token\n"
    "  --token TEXT        every request must carry it (one is made up when another\n"
    "                      address than loopback is given without one)\n"
    "It prints the page's address once the backend has answered, and serves until\n"
    "SIGINT or SIGTERM. Exit status 0, 1 when the backend ended by itself, 2 when\n"
    "nothing could start.\n";

// A backend that ends by itself is shown this long before the panel ends.
constexpr us_time_t ended_grace_us = 2'000'000;
// How long the backend has to write its first record before the panel gives up.
constexpr int first_record_ms = 10'000;
// The loop wakes at least this often, to mark takes that are not confirmed.
constexpr int tick_ms = 250;
// Diagnostic lines of the backend named on our standard error when it ends.
constexpr std::size_t last_lines = 5;

volatile std::sig_atomic_t stop_requested = 0;
void on_signal(int) { stop_requested = 1; }

// The panel's state: the backend it drives and what it knows, for the loop
// and the web server's handlers alike (the same thread).
parent_client backend;
panel_model model;
std::deque<std::string> recent_lines;  // the backend's latest diagnostic lines

// One line on standard error; the exit status of a panel that cannot start.
int fail(const std::string& why) {
  std::fprintf(stderr, "zeph_route_panel: %s\n", why.c_str());
  return 2;
}

bool parse_listen(const std::string& text, panel_listen& l) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string::npos) return false;
  l.host = text.substr(0, colon);
  char* end = nullptr;
  const long port = std::strtol(text.c_str() + colon + 1, &end, 10);
  if (*end != '\0' || end == text.c_str() + colon + 1 || port < 0 || port > 65535) return false;
  l.port = static_cast<int>(port);
  return true;
}

// The backend's output since the last pass, into the model; error replies to
// the panel's own requests among it.
void read_backend() {
  client_take_output(backend);
  panel_events fresh;
  const auto add = [&fresh](panel_events e) { fresh.insert(fresh.end(), e.begin(), e.end()); };
  for (; !backend.diags.empty(); backend.diags.pop_front()) {
    const client_diag& d = backend.diags.front();
    if (d.level != diag_level::dbg) {
      recent_lines.push_back(d.text);
      if (recent_lines.size() > last_lines) recent_lines.pop_front();
    }
    add(model_read_diag(model, d.text));
  }
  for (; !backend.refused.empty(); backend.refused.pop_front()) {
    add(model_take_refused(model, backend.refused.front().output, backend.refused.front().code));
  }
  for (; !backend.records.empty(); backend.records.pop_front()) {
    const client_record& r = backend.records.front();
    const parent_message& m = r.msg;
    if (m.type != "reply") add(model_read_record(model, m, r.changes));
    else if (!m.error.empty()) add(model_error(m.command + " (id " + m.id + "): " + m.error));
  }
  add(model_expire(model, monotonic_now_us()));
  events_publish(fresh);
}

// A salvo goes as the backend's queue wants it: an "add" per take, then one
// "flush", so the takes reach the switcher as one batch. The link is checked
// on the newest diagnostic lines, read just before.
server_answer take(const std::map<long, long>& salvo, const std::string& client) {
  child_pump(0);
  read_backend();
  const panel_refusal refused = model_check_salvo(model, salvo);
  if (!refused.reason.empty()) return {refused.conflict ? 409 : 400, refused.reason};
  for (const auto& [output, input] : salvo) {
    (void)client_send(backend, client_route_request("add", input, output));
  }
  (void)client_send(backend, client_route_request("flush"));
  events_publish(model_takes_sent(model, salvo, client, monotonic_now_us()));
  return {};
}

server_answer lock(long output, bool locked) {
  const std::string why = model_check_lock(model, output);
  if (!why.empty()) return {400, why};
  events_publish(model_set_lock(model, output, locked));
  return {};
}

server_answer dismiss(long output) {
  panel_events fresh;
  const std::string why = model_dismiss(model, output, fresh);
  events_publish(fresh);
  return {why.empty() ? 200 : 409, why};
}

std::string state(bool debug) { return model_state(model, debug); }

// How the backend ended, with its last words.
std::string describe_end() {
  std::string how = child_describe_end(backend.child);
  for (const std::string& line : recent_lines) how += "\n" + line;
  return how;
}

// Waits for the backend's first record; false, with its reason on standard
// error, when it ended or stayed silent.
bool wait_first_record() {
  const bool answered = child_wait(
      [] {
        client_take_output(backend);
        return !backend.records.empty() || backend.child.reaped;
      },
      first_record_ms);
  if (answered && !backend.records.empty()) return true;
  if (backend.child.reaped) (void)child_wait_exit(backend.child, 1000);
  client_take_output(backend);
  std::string why = backend.child.reaped ? "the backend could not start (" +
                                               child_describe_end(backend.child) + ")"
                                         : "the backend wrote nothing in 10 s";
  for (const client_diag& d : backend.diags) why += "\n  " + d.text;
  (void)fail(why);
  return false;
}

// Serves until a signal, or a while after the backend ended; the exit status.
int serve() {
  us_time_t ended_at = 0;
  while (stop_requested == 0) {
    (void)child_pump_watching(server_timeout_ms(tick_ms), server_fd());
    const std::uint64_t before = events_next();
    read_backend();
    if (backend.child.reaped && ended_at == 0) {
      (void)child_wait_exit(backend.child, 1000);
      read_backend();
      const std::string how = describe_end();
      (void)fail("the backend ended: " + how);
      events_publish(model_backend_ended(model, how));
      ended_at = monotonic_now_us();
    }
    if (events_next() != before) server_news();
    const std::uint64_t handled = events_next();
    server_step();
    // What the requests just served changed goes out at the next pass, which
    // their resumed streams make come at once.
    if (events_next() != handled) server_news();
    if (ended_at != 0 && monotonic_now_us() >= ended_at + ended_grace_us) break;
  }
  return ended_at != 0 ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  parent_options o;
  panel_listen listen;
  const auto token = [&listen](const std::string& v) {
    listen.token = v;
    return std::string();
  };
  const auto where = [&listen](const std::string& v) {
    if (parse_listen(v, listen)) return std::string();
    return "wants ADDR:PORT (such as 127.0.0.1:8080), not \"" + v + "\"";
  };
  const int status = parent_options_parse(argc, argv, "zeph_route_panel", usage_text,
                                          {{"--token", token}, {"--listen", where}}, o);
  if (status >= 0) return status;
  model.tables = &backend.tables;
  for (int sig : {SIGINT, SIGTERM, SIGHUP}) std::signal(sig, on_signal);

  // Listening first: a panel that cannot serve starts nothing.
  const int port = server_listen(listen);
  if (port < 0) return 2;
  child_process emulator;
  std::unique_ptr<temp_dir> dir;
  std::string config = o.config;
  if (o.use_emulator) {
    dir = std::make_unique<temp_dir>();
    config = client_start_emulated(emulator, o.emulator, o.emulator_options, *dir, 10000);
    if (config.empty()) return 2;
  }
  if (!client_start(backend, o.backend, {"--file", config}) || !wait_first_record()) return 2;
  read_backend();
  if (!server_start({take, lock, dismiss, state})) return 2;
  std::string url = "http://" + listen.host + ":" + std::to_string(port) + "/";
  if (!listen.token.empty()) url += "?token=" + listen.token;
  std::printf("%s\n", url.c_str());
  std::fflush(stdout);

  const int exit_status = serve();
  server_stop();
  child_stop(backend.child);
  child_stop(emulator);
  return exit_status;
}

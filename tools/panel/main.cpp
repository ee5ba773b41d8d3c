// zeph_route_panel: a crosspoint panel in the browser. It starts the backend
// as its child, exactly as a parent does (as the console does), on a
// configuration or against the bundled switcher emulator, and serves one page
// that shows the switcher's routes live and routes from the browser.
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "panel/hub.h"
#include "panel/server.h"
#include "parent_client/client.h"
#include "parent_client/temp_dir.h"

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
    "It prints the page's address and serves until SIGINT or SIGTERM. Exit status\n"
    "0, 1 when the backend ended by itself, 2 when nothing could start.\n";

// A backend that ends by itself is shown this long before the panel ends.
constexpr us_time_t ended_grace_us = 2'000'000;

volatile std::sig_atomic_t stop_requested = 0;
void on_signal(int) { stop_requested = 1; }

struct panel_options {
  std::string backend;
  std::string config;
  std::string emulator;
  bool use_emulator = false;
  std::vector<std::string> emulator_options;
  server_options listen;
};

bool parse_listen(const std::string& text, server_options& s) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string::npos) return false;
  s.host = text.substr(0, colon);
  char* end = nullptr;
  const long port = std::strtol(text.c_str() + colon + 1, &end, 10);
  if (*end != '\0' || end == text.c_str() + colon + 1 || port < 0 || port > 65535) return false;
  s.port = static_cast<int>(port);
  return true;
}

// -1 to go on, else the exit status.
int parse_options(int argc, char** argv, panel_options& o) {
  for (int i = 1; i < argc; ++i) {
    const std::string opt = argv[i];
    if (opt == "-h" || opt == "--help") {
      std::fputs(usage_text, stdout);
      return 0;
    }
    if (opt == "--emulator") {
      o.use_emulator = true;
      o.emulator_options.assign(argv + i + 1, argv + argc);
      break;
    }
    const bool has_value = i + 1 < argc;
    if (opt == "--file" && has_value) {
      o.config = argv[++i];
    } else if (opt == "--backend" && has_value) {
      o.backend = argv[++i];
    } else if (opt == "--token" && has_value) {
      o.listen.token = argv[++i];
    } else if (!(opt == "--listen" && has_value && parse_listen(argv[++i], o.listen))) {
      std::fputs(usage_text, stderr);
      return 2;
    }
  }
  if (o.use_emulator == !o.config.empty()) {
    std::fputs(usage_text, stderr);
    return 2;
  }
  return -1;
}

// Sends each salvo as the backend's queue wants it: an "add" per take, then
// one "flush", so the takes reach the switcher as one batch.
void send_salvos(parent_client& backend) {
  for (const panel_salvo& salvo : hub_take_salvos()) {
    for (const auto& [output, input] : salvo) {
      (void)client_send(backend, client_route_request("add", input, output));
    }
    (void)client_send(backend, client_route_request("flush"));
  }
}

// The backend's output since the last pass, to the hub; error replies to the
// panel's own requests among it.
void take_output(parent_client& backend) {
  client_take_output(backend);
  for (; !backend.diags.empty(); backend.diags.pop_front()) {
    hub_take_diag(backend.diags.front().text);
  }
  for (; !backend.records.empty(); backend.records.pop_front()) {
    const parent_message& m = backend.records.front().msg;
    if (m.type == "reply") {
      if (!m.error.empty()) hub_reply_error(m.command + " (id " + m.id + "): " + m.error);
    } else {
      hub_take_record(m);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  panel_options o;
  const int status = parse_options(argc, argv, o);
  if (status >= 0) return status;
  if (o.backend.empty()) o.backend = child_find_program("zeph_route_grass_valley");
  if (o.use_emulator) o.emulator = child_find_program("switcher_emulator");
  for (int sig : {SIGINT, SIGTERM, SIGHUP}) std::signal(sig, on_signal);

  child_process emulator;
  std::unique_ptr<temp_dir> dir;
  std::string config = o.config;
  if (o.use_emulator) {
    const std::string port = client_start_emulator(emulator, o.emulator, o.emulator_options, 10000);
    if (port.empty()) return 2;
    dir = std::make_unique<temp_dir>();
    config = dir->write("router.cfg", "ip address = 127.0.0.1\nport = " + port + "\n");
  }
  parent_client backend;
  if (!hub_open() || !client_start(backend, o.backend, {"--file", config})) return 2;
  const int port = server_start(o.listen);
  if (port < 0) return 2;
  std::string url = "http://" + o.listen.host + ":" + std::to_string(port) + "/";
  if (!o.listen.token.empty()) url += "?token=" + o.listen.token;
  std::printf("%s\n", url.c_str());
  std::fflush(stdout);

  us_time_t ended_at = 0;
  while (stop_requested == 0) {
    (void)child_pump_watching(100, hub_wake_fd());
    take_output(backend);
    send_salvos(backend);
    hub_tick();
    if (backend.child.reaped && ended_at == 0) {
      (void)child_wait_exit(backend.child, 1000);
      take_output(backend);
      hub_backend_ended(child_describe_end(backend.child));
      ended_at = monotonic_now_us();
    }
    if (ended_at != 0 && monotonic_now_us() >= ended_at + ended_grace_us) break;
  }
  server_stop();
  child_stop(backend.child);
  child_stop(emulator);
  return ended_at != 0 ? 1 : 0;
}

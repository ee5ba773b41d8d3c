// switcher_emulator: a routing switcher speaking the Native Protocol on TCP,
// for the demo, the black-box tests and trying the backend without hardware.
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <fstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "parent_client/client.h"
#include "switcher_emulator/control.h"
#include "switcher_emulator/pcap.h"
#include "switcher_emulator/server.h"

namespace {

volatile std::sig_atomic_t stop_requested = 0;

void on_signal(int) { stop_requested = 1; }

constexpr const char* usage_text =
    "usage: switcher_emulator [options]\n"
    "  --bind ADDR              numeric IPv4 address to listen on (127.0.0.1)\n"
    "  --port N                 TCP port, 0 for an ephemeral one (12345)\n"
    "  --outputs N  --inputs N  destinations 0-1024 and sources 1-1024 (16, 16)\n"
    "  --output-base N  --input-base N   number of the first one (1, 1)\n"
    "  --output-names FILE  --input-names FILE   one name per line\n"
    "  --levels NAME:N,...      levels (Video:0,Audio:1)\n"
    "  --model TEXT  --firmware-type TEXT  --firmware-revision TEXT\n"
    "  --routes DEST:SOURCE,... initial routes (destination i from source i)\n"
    "  --protect DEST,...       destinations protected by another controller\n"
    "  --rename-after MS        rename the first destination and source MS ms\n"
    "                           after the first client connected\n"
    "  --verbose                log every frame and event on stderr\n"
    "  --no-controls            do not read control lines from stdin\n"
    "  --pcap FILE              record the client traffic as a pcap capture\n"
    "  --backend-config FILE    once listening, write a backend configuration\n"
    "                           naming this address and port into FILE\n"
    "faults (random ones drawn from --seed N, default 1):\n"
    "  --close-after N  --close-random N  --silent-after N  --ack-only\n"
    "  --delay MS  --delay-jitter MS  --handshake-delay MS  --split-writes\n"
    "  --garbage N  --corrupt-random N  --refuse-for MS\n"
    "  --chaos                  faults at random, one kind per time slice\n"
    "  --chaos-slice MS         mean length of a chaos slice (3000)\n";

bool fail(const std::string& what) {
  std::fprintf(stderr, "switcher_emulator: %s\n", what.c_str());
  return false;
}

// Reads a names file: line i names position i; a blank line keeps the
// generated name.
bool read_names(const std::string& path, std::vector<std::string>& names) {
  struct stat st{};
  if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return fail(path + " is a directory");
  std::ifstream in(path);
  if (!in) return fail("cannot read " + path);
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    names.push_back(line);
  }
  return true;
}

// Splits "A:B,C:D" into pairs; the part before the last colon of each item
// is kept as text.
bool split_pairs(const std::string& list, std::vector<std::pair<std::string, std::string>>& out) {
  std::size_t start = 0;
  while (start <= list.size()) {
    std::size_t end = list.find(',', start);
    if (end == std::string::npos) end = list.size();
    const std::string item = list.substr(start, end - start);
    const std::size_t colon = item.rfind(':');
    if (colon == std::string::npos) return false;
    out.emplace_back(item.substr(0, colon), item.substr(colon + 1));
    start = end + 1;
  }
  return true;
}

bool parse_levels(const std::string& list, emulator_config& cfg) {
  std::vector<std::pair<std::string, std::string>> items;
  if (!split_pairs(list, items)) return fail("--levels wants NAME:NUMBER,...");
  cfg.levels.clear();
  for (const auto& [name, number] : items) {
    std::uint64_t n = 0;
    if (!parse_decimal(number, 31, n)) return fail("level number must be 0 to 31");
    cfg.levels.push_back({name, static_cast<std::uint32_t>(n)});
  }
  return true;
}

bool parse_routes(const std::string& list, emulator_config& cfg) {
  std::vector<std::pair<std::string, std::string>> items;
  if (!split_pairs(list, items)) return fail("--routes wants DEST:SOURCE,...");
  for (const auto& [dest, src] : items) {
    std::uint64_t d = 0;
    std::uint64_t s = 0;
    if (!parse_decimal(dest, UINT32_MAX, d) || !parse_decimal(src, UINT32_MAX, s)) {
      return fail("--routes wants decimal numbers");
    }
    cfg.routes.emplace_back(static_cast<std::uint32_t>(d), static_cast<std::uint32_t>(s));
  }
  return true;
}

bool parse_protect(const std::string& list, emulator_config& cfg) {
  for (std::size_t start = 0; start <= list.size();) {
    std::size_t end = list.find(',', start);
    if (end == std::string::npos) end = list.size();
    std::uint64_t d = 0;
    if (!parse_decimal(list.substr(start, end - start), UINT32_MAX, d)) {
      return fail("--protect wants decimal destination numbers, DEST,...");
    }
    cfg.protected_outputs.push_back(static_cast<std::uint32_t>(d));
    start = end + 1;
  }
  return true;
}

// One option with its value; false, with a line on standard error, on a bad value.
bool apply_option(const std::string& opt, const std::string& v, emulator_server& s) {
  emulator_config& c = s.cfg;
  emulator_server_options& o = s.opt;
  emulator_faults& f = o.faults;
  struct number_option {
    const char* name;
    std::uint64_t min, max;  // a fault's N from 1: there is no 1-in-0 or Nth frame 0
    std::uint32_t* target;
  };
  const number_option numbers[] = {
      {"--port", 0, 65535, &o.port},
      {"--outputs", 0, 1024, &c.outputs},
      {"--inputs", 1, 1024, &c.inputs},
      {"--output-base", 0, 65535, &c.output_base},
      {"--input-base", 0, 65535, &c.input_base},
      {"--close-after", 1, UINT32_MAX, &f.close_after},
      {"--close-random", 1, UINT32_MAX, &f.close_random},
      {"--delay", 0, 600000, &f.delay_ms},
      {"--delay-jitter", 0, 600000, &f.delay_jitter_ms},
      {"--handshake-delay", 0, 600000, &f.handshake_delay_ms},
      {"--garbage", 1, 4096, &f.garbage},
      {"--corrupt-random", 1, UINT32_MAX, &f.corrupt_random},
      {"--refuse-for", 0, 3600000, &f.refuse_ms},
      {"--chaos-slice", 1, 3600000, &o.chaos_slice_ms},
  };
  std::uint64_t n = 0;
  for (const number_option& no : numbers) {
    if (opt != no.name) continue;
    if (!parse_decimal(v, no.max, n) || n < no.min) {
      return fail(opt + " wants a number from " + std::to_string(no.min) + " to " +
                  std::to_string(no.max));
    }
    *no.target = static_cast<std::uint32_t>(n);
    return true;
  }
  if (opt == "--seed" || opt == "--silent-after" || opt == "--rename-after") {
    if (!parse_decimal(v, INT64_MAX, n)) return fail(opt + " wants a number");
    if (opt == "--seed") f.seed = n;
    if (opt == "--silent-after") f.silent_after = static_cast<std::int64_t>(n);
    if (opt == "--rename-after") o.rename_after_ms = static_cast<std::int64_t>(n);
    return true;
  }
  if (opt == "--bind") o.bind_address = v;
  else if (opt == "--model") c.model = v;
  else if (opt == "--firmware-type") c.firmware_type = v;
  else if (opt == "--firmware-revision") c.firmware_revision = v;
  else if (opt == "--output-names") return read_names(v, c.output_names);
  else if (opt == "--input-names") return read_names(v, c.input_names);
  else if (opt == "--levels") return parse_levels(v, c);
  else if (opt == "--routes") return parse_routes(v, c);
  else if (opt == "--protect") return parse_protect(v, c);
  else if (opt == "--pcap") o.pcap_path = v;
  else if (opt == "--backend-config") o.backend_config_path = v;
  return true;
}

// The options that take a value, which is the next word.
constexpr const char* value_options[] = {
    "--port", "--outputs", "--inputs", "--output-base", "--input-base", "--close-after",
    "--close-random", "--delay", "--delay-jitter", "--handshake-delay", "--garbage", "--corrupt-random",
    "--refuse-for", "--chaos-slice", "--seed", "--silent-after", "--rename-after", "--bind",
    "--model", "--firmware-type", "--firmware-revision", "--output-names", "--input-names",
    "--levels", "--routes", "--protect", "--pcap", "--backend-config"};

bool takes_value(const std::string& opt) {
  for (const char* v : value_options) {
    if (opt == v) return true;
  }
  return false;
}

// "--port=0" is told how it is written.
void unknown_option(const std::string& opt) {
  const std::size_t eq = opt.find('=');
  if (eq != std::string::npos && takes_value(opt.substr(0, eq))) {
    (void)fail("unknown option " + opt + ": the value is the next word (" + opt.substr(0, eq) +
               " " + opt.substr(eq + 1) + ")");
  } else {
    (void)fail("unknown option " + opt + " (see --help)");
  }
}

// Options, then the checks on the texts; -1 to go on, else the exit status.
int parse_options(int argc, char** argv, emulator_server& s) {
  for (int i = 1; i < argc; ++i) {
    const std::string opt = argv[i];
    if (opt == "-h" || opt == "--help") {
      std::fputs(usage_text, stdout);
      return 0;
    }
    if (opt == "--verbose") s.opt.verbose = true;
    else if (opt == "--no-controls") s.opt.control_stdin = false;
    else if (opt == "--ack-only") s.opt.faults.ack_only = true;
    else if (opt == "--split-writes") s.opt.faults.split_writes = true;
    else if (opt == "--chaos") s.opt.chaos = true;
    else if (!takes_value(opt)) {
      unknown_option(opt);
      return 1;
    } else if (i + 1 >= argc) {
      (void)fail(opt + " wants a value (see --help)");
      return 1;
    } else if (!apply_option(opt, argv[++i], s)) {
      return 1;
    }
  }
  for (const std::string* text : {&s.cfg.model, &s.cfg.firmware_type, &s.cfg.firmware_revision}) {
    if (!emulator_valid_name(*text)) {
      (void)fail("identity texts must be 1-64 printable bytes");
      return 1;
    }
  }
  return -1;
}

}  // namespace

int main(int argc, char** argv) {
  emulator_server s;
  // Controls come from descriptor 0 when it is open; checked before any
  // socket could take that number.
  s.opt.control_stdin = fcntl(0, F_GETFD) != -1;
  const int status = parse_options(argc, argv, s);
  if (status >= 0) return status;
  // In the background of a terminal ("&" in an interactive shell) a read of
  // it would stop us with SIGTTIN, and a client would wait for answers in
  // vain: controls stay off there. Ignoring the signal makes a later read in
  // the background fail instead, which ends the controls the same way.
  if (s.opt.control_stdin && isatty(0) == 1 && tcgetpgrp(0) != getpgrp()) {
    s.opt.control_stdin = false;
    std::fprintf(stderr, "switcher_emulator: in the background of a terminal: "
                         "no controls from it\n");
  }
  std::signal(SIGTTIN, SIG_IGN);
  std::signal(SIGTTOU, SIG_IGN);
  if (!s.opt.pcap_path.empty() && !pcap_open(s.opt.pcap_path.c_str())) return 1;
  if (!server_open(s)) return 1;
  // Written before the first line, so that whoever reads that line finds it.
  if (!s.opt.backend_config_path.empty()) {
    std::ofstream cfg(s.opt.backend_config_path, std::ios::trunc);
    cfg << client_emulator_config(std::to_string(s.port), s.opt.bind_address);
    if (!cfg.flush()) {
      (void)fail("cannot write " + s.opt.backend_config_path);
      server_close(s);
      pcap_close();
      return 1;
    }
  }
  std::signal(SIGINT, on_signal);
  std::signal(SIGTERM, on_signal);
  std::signal(SIGHUP, on_signal);
  std::signal(SIGPIPE, SIG_IGN);
  // Scripts and tests find the port as the last number of this first line.
  std::printf("switcher_emulator listening on %s port %u\n", s.opt.bind_address.c_str(),
              static_cast<unsigned>(s.port));
  std::fflush(stdout);
  while (stop_requested == 0 && !s.quit) server_step(s, 250);
  server_close(s);
  pcap_close();
  return 0;
}

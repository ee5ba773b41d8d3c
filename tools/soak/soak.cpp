// soak: the real backend against the switcher emulator in chaos mode, with a
// scripted parent, for as long as asked. It checks that the backend never
// ends, that its memory stays bounded, that every request is answered, and
// that once the faults stop it resynchronises and reports the switcher's
// routes. Exit status 0 when all of that held, 1 with the reason otherwise.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

#include "base/clock.h"
#include "soak/run.h"
#include "switcher_emulator/chaos.h"

namespace {

struct soak_options {
  std::uint64_t seconds = 60;
  std::uint64_t seed = 1;
  std::uint64_t slice_ms = 3000;
  std::string backend = SOAK_BACKEND_PATH;
  std::string emulator = SOAK_EMULATOR_PATH;
  std::string log_dir;  // empty: no logs kept
};

// The pace of a realistic parent: a request every 200 to 800 ms, never more
// than a few waiting. The backend reads its input a byte per pass, and while
// it waits for the switcher a byte or two per 10 ms, so a flood would only
// measure the queue in the pipe.
constexpr std::uint64_t request_gap_min_ms = 200;
constexpr std::uint64_t request_gap_spread_ms = 600;
constexpr std::size_t max_waiting_requests = 4;
// Replies may be late: a request can arrive while the backend sits in a wait
// of several seconds, and requests handled inside it add their own.
constexpr us_time_t reply_limit_us = 60'000'000;
// Now and then the parent misbehaves at length: a burst of "report outputs"
// requests, and a stretch in which it reads none of the backend's output.
constexpr std::uint64_t flood_gap_min_ms = 10'000;
constexpr std::uint64_t flood_gap_spread_ms = 10'000;
constexpr std::uint64_t flood_requests_min = 8;
constexpr std::uint64_t flood_requests_spread = 8;
constexpr std::uint64_t stall_gap_min_ms = 15'000;
constexpr std::uint64_t stall_gap_spread_ms = 15'000;
constexpr std::uint64_t stall_min_ms = 3'000;
constexpr std::uint64_t stall_spread_ms = 7'000;
// Memory after the run may exceed memory after the first sync by this much.
constexpr long rss_margin_kib = 1024;

constexpr const char* usage_text =
    "usage: soak [--seconds N] [--seed N] [--slice MS] [--log DIR]\n"
    "            [--backend PATH] [--emulator PATH]\n"
    "  --seconds N   how long the faults go on (60)\n"
    "  --seed N      seed of the faults and of the parent's requests (1)\n"
    "  --slice MS    mean length of one fault slice (3000)\n"
    "  --log DIR     keep the backend's diagnostics and the emulator's verbose\n"
    "                log as DIR/backend.log and DIR/emulator.log\n";

bool parse_number(const char* text, std::uint64_t& value) {
  char* end = nullptr;
  value = std::strtoull(text, &end, 10);
  return *text >= '0' && *text <= '9' && *end == '\0';
}

bool parse_options(int argc, char** argv, soak_options& o) {
  for (int i = 1; i < argc; ++i) {
    const std::string opt = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
    bool ok = value != nullptr;
    if (opt == "--seconds") ok = ok && parse_number(value, o.seconds) && o.seconds > 0;
    else if (opt == "--seed") ok = ok && parse_number(value, o.seed);
    else if (opt == "--slice") ok = ok && parse_number(value, o.slice_ms) && o.slice_ms > 0;
    else if (opt == "--log" && ok) o.log_dir = value;
    else if (opt == "--backend" && ok) o.backend = value;
    else if (opt == "--emulator" && ok) o.emulator = value;
    else ok = false;
    if (!ok) {
      std::fputs(usage_text, stderr);
      return false;
    }
    ++i;
  }
  return true;
}

std::uint64_t draw_ms(soak_run& run, std::uint64_t min, std::uint64_t spread) {
  return min + emulator_random(run.parent.rng) % (spread + 1);
}

// Starts the emulator, then the backend on a configuration naming it. The
// active counts are left to follow the switcher, so that every names reply
// the faults spoil also moves them.
bool start(soak_run& run, const soak_options& o, const std::string& dir) {
  std::vector<std::string> emu = {
      "--outputs", std::to_string(run.layout.outputs),
      "--inputs", std::to_string(run.layout.inputs),
      "--output-base", std::to_string(run.layout.output_base),
      "--input-base", std::to_string(run.layout.input_base),
      "--seed", std::to_string(o.seed), "--chaos-slice", std::to_string(o.slice_ms)};
  if (run.emulator_log != nullptr) emu.push_back("--verbose");
  const std::string port = client_start_emulator(run.emulator, o.emulator, emu, 10000);
  if (port.empty()) {
    run_fail(run, "emulator did not say its port");
    return false;
  }
  const std::string cfg = dir + "/router.cfg";
  std::FILE* f = std::fopen(cfg.c_str(), "w");
  if (f == nullptr) {
    run_fail(run, "cannot write " + cfg);
    return false;
  }
  std::fputs(client_emulator_config(port).c_str(), f);
  std::fclose(f);
  return client_start(run.backend, o.backend, {"--file", cfg});
}

// The clean start: the first synchronisation gives the memory baseline,
// taken once the reports that follow it have gone out.
bool first_sync(soak_run& run, long& rss_base) {
  if (!run_until(run, 30000, [&run] { return run.parent.full_reports > 0; })) {
    run_fail(run, "no routing report of every output within 30 s of the start");
    return false;
  }
  (void)run_until(run, 1000, [] { return false; });
  rss_base = child_status_kib(run.backend.child, "VmRSS");
  return run.failure.empty();
}

// The faults, with the parent and the switcher's own panel busy meanwhile.
void chaos(soak_run& run, const soak_options& o) {
  run_control(run, "chaos on");
  const us_time_t now0 = monotonic_now_us();
  const us_time_t end = now0 + o.seconds * 1'000'000;
  us_time_t next_request = now0;
  us_time_t next_take = now0 + 1'000'000;
  us_time_t next_rename = now0 + 5'000'000;
  us_time_t next_flood = now0 + draw_ms(run, flood_gap_min_ms, flood_gap_spread_ms) * 1000;
  us_time_t next_stall = now0 + draw_ms(run, stall_gap_min_ms, stall_gap_spread_ms) * 1000;
  us_time_t stall_end = 0;
  std::uint64_t renames = 0;
  for (us_time_t now = now0; now < end && run.failure.empty(); now = monotonic_now_us()) {
    if (now >= next_request && run.parent.pending.size() < max_waiting_requests) {
      client_send_text(run.backend, script_next_request(run.parent, run.layout, now));
      next_request = now + draw_ms(run, request_gap_min_ms, request_gap_spread_ms) * 1000;
    }
    if (now >= next_take) {
      const std::uint64_t dest = run.layout.output_base + draw_ms(run, 0, run.layout.outputs - 1);
      const std::uint64_t src = run.layout.input_base + draw_ms(run, 0, run.layout.inputs - 1);
      run_control(run, "take " + std::to_string(dest) + " " + std::to_string(src));
      next_take = now + draw_ms(run, 1000, 3000) * 1000;
    }
    if (now >= next_rename) {
      // Renames raise the switcher's change flags, so the backend re-reads names.
      const bool output = ++renames % 2 == 0;
      const soak_layout& l = run.layout;
      const std::uint64_t n = output ? l.output_base + draw_ms(run, 0, l.outputs - 1)
                                     : l.input_base + draw_ms(run, 0, l.inputs - 1);
      run_control(run, std::string("rename ") + (output ? "output " : "input ") +
                           std::to_string(n) + " SOAK " + std::to_string(renames));
      next_rename = now + draw_ms(run, 8000, 8000) * 1000;
    }
    if (now >= next_flood) {
      const std::uint64_t n = draw_ms(run, flood_requests_min, flood_requests_spread);
      client_send_text(run.backend, script_report_flood(run.parent, n, now));
      next_flood = now + draw_ms(run, flood_gap_min_ms, flood_gap_spread_ms) * 1000;
    }
    if (stall_end == 0 && now >= next_stall) {
      run.backend.child.out_paused = true;
      ++run.stalls;
      stall_end = now + draw_ms(run, stall_min_ms, stall_spread_ms) * 1000;
    } else if (stall_end != 0 && now >= stall_end) {
      run.backend.child.out_paused = false;
      stall_end = 0;
      next_stall = now + draw_ms(run, stall_gap_min_ms, stall_gap_spread_ms) * 1000;
    }
    us_time_t waited = 0;
    const std::string id = script_oldest_pending(run.parent, now, waited);
    if (waited > reply_limit_us) run_fail(run, "no reply to request " + id + " within 60 s");
    run_pump(run, 20);
  }
  run.backend.child.out_paused = false;
}

// True when every output the switcher has is reported with its route.
bool routes_agree(const soak_run& run, std::string& diff) {
  diff.clear();
  for (const auto& [output, input] : run.switcher_routes) {
    const auto seen = run.parent.routes.find(output);
    if (seen != run.parent.routes.end() && seen->second == input) continue;
    if (diff.size() < 200) {
      diff += " o" + std::to_string(output) + ": switcher " + std::to_string(input) + ", parent " +
              (seen == run.parent.routes.end() ? "nothing" : std::to_string(seen->second)) + ";";
    }
  }
  return diff.empty() && run.switcher_routes.size() == run.layout.outputs;
}

// The faults stop: every request still waiting is answered, and after a
// fresh connection the backend reports the switcher's routes.
bool recover(soak_run& run, double& agree_after_s) {
  run_control(run, "chaos off");
  if (!run_controls_done(run, 5000)) return false;
  if (!run_until(run, 60000, [&run] { return run.parent.pending.empty(); })) {
    run_fail(run, std::to_string(run.parent.pending.size()) +
                      " requests without a reply 60 s after the faults stopped");
    return false;
  }
  // A fresh connection, so the routes come from a synchronisation.
  const std::uint64_t connects = run.stats.connects;
  run_control(run, "drop");
  if (!run_controls_done(run, 5000)) return false;
  if (!run_until(run, 30000, [&] { return run.stats.connects > connects; })) {
    run_fail(run, "backend did not reconnect within 30 s after the faults stopped");
    return false;
  }
  const us_time_t connected = monotonic_now_us();
  const std::uint64_t full = run.parent.full_reports;
  if (!run_until(run, 30000, [&] { return run.parent.full_reports > full; })) {
    run_fail(run, "no routing report of every output within 30 s of the reconnect");
    return false;
  }
  // Changes flushed before the faults stopped may still reach the switcher;
  // status polling then reports them, so agreement may take a few polls.
  std::string diff;
  for (int attempt = 0; attempt < 20 && run.failure.empty(); ++attempt) {
    run_control(run, "routes");
    if (!run_controls_done(run, 5000)) return false;
    if (routes_agree(run, diff)) {
      agree_after_s = static_cast<double>(monotonic_now_us() - connected) / 1e6;
      return true;
    }
    (void)run_until(run, 1000, [] { return false; });
  }
  run_fail(run, "routes reported to the parent differ from the switcher's:" + diff);
  return false;
}

void print_tail(const soak_run& run) {
  std::fprintf(stderr, "soak: last lines of the backend's diagnostics:\n");
  for (const std::string& line : run.stats.tail) std::fprintf(stderr, "  %s\n", line.c_str());
}

void print_summary(const soak_run& run, const soak_options& o, long rss_base, long rss_end,
                   double agree_after_s) {
  const soak_parent& p = run.parent;
  const backend_stats& s = run.stats;
  std::printf("soak: %llu s of faults, seed %llu: passed\n",
              static_cast<unsigned long long>(o.seconds), static_cast<unsigned long long>(o.seed));
  std::printf("  parent: %llu requests (", static_cast<unsigned long long>(script_sent_total(p)));
  const char* sep = "";
  for (const auto& [kind, n] : p.sent) {
    std::printf("%s%s %llu", sep, kind.c_str(), static_cast<unsigned long long>(n));
    sep = ", ";
  }
  std::printf("), all answered; longest wait %.2f s; %llu malformed records and stray bytes;\n"
              "          %llu bursts of \"report outputs\"; %llu stretches without reading\n",
              static_cast<double>(p.longest_wait) / 1e6, static_cast<unsigned long long>(p.junk),
              static_cast<unsigned long long>(p.floods),
              static_cast<unsigned long long>(run.stalls));
  using ull = unsigned long long;
  std::printf("  backend: %llu connections, %llu closed, %llu timeouts, %llu watchdog drops, "
              "%llu stray bytes, %llu bad checksums, %llu status polls\n",
              static_cast<ull>(s.connects), static_cast<ull>(s.closes),
              static_cast<ull>(s.timeouts), static_cast<ull>(s.watchdog),
              static_cast<ull>(s.stray), static_cast<ull>(s.checksum), static_cast<ull>(s.polls));
  std::printf("  resync: %u routes agree with the switcher %.1f s after the reconnect\n",
              run.layout.outputs, agree_after_s);
  std::printf("  memory: VmRSS %ld KiB after the first sync, %ld KiB at the end (limit +%ld)\n",
              rss_base, rss_end, rss_margin_kib);
}

// Runs every phase; false with run.failure set when one fails.
bool soak(soak_run& run, const soak_options& o, const std::string& dir) {
  long rss_base = -1;
  double agree_after_s = 0;
  if (!start(run, o, dir) || !first_sync(run, rss_base)) return false;
  chaos(run, o);
  if (!run.failure.empty() || !recover(run, agree_after_s)) return false;
  const long rss_end = child_status_kib(run.backend.child, "VmRSS");
  if (rss_base < 0 || rss_end < 0) {
    run_fail(run, "cannot read the backend's VmRSS");
    return false;
  }
  if (rss_end > rss_base + rss_margin_kib) {
    run_fail(run, "VmRSS grew from " + std::to_string(rss_base) + " KiB after the first sync to " +
                      std::to_string(rss_end) + " KiB");
    return false;
  }
  // The end of its input ends the backend, with status 0.
  run.backend_may_end = true;
  child_close_input(run.backend.child);
  if (!run_until(run, 10000, [&run] { return run.backend.child.reaped; })) {
    run_fail(run, "backend did not end within 10 s of the end of its input");
    return false;
  }
  if (child_describe_end(run.backend.child) != "exit status 0") {
    run_fail(run, "backend ended with " + child_describe_end(run.backend.child));
    return false;
  }
  print_summary(run, o, rss_base, rss_end, agree_after_s);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  soak_options o;
  if (!parse_options(argc, argv, o)) return 2;
  // A child that has gone must not take the soak with it.
  std::signal(SIGPIPE, SIG_IGN);
  char dir_template[] = "/tmp/zeph-soak.XXXXXX";
  const char* dir = mkdtemp(dir_template);
  if (dir == nullptr) {
    std::perror("soak: mkdtemp");
    return 1;
  }
  soak_run run;
  run.parent.rng = o.seed;
  if (!o.log_dir.empty()) {
    run.backend_log = std::fopen((o.log_dir + "/backend.log").c_str(), "w");
    run.emulator_log = std::fopen((o.log_dir + "/emulator.log").c_str(), "w");
    if (run.backend_log == nullptr || run.emulator_log == nullptr) {
      std::fprintf(stderr, "soak: cannot write logs in %s\n", o.log_dir.c_str());
      return 1;
    }
  }
  const bool passed = soak(run, o, dir);
  if (!passed) {
    std::fprintf(stderr, "soak: FAILED (seed %llu): %s\n",
                 static_cast<unsigned long long>(o.seed), run.failure.c_str());
    print_tail(run);
  }
  // Stopped as a parent stops it: end of input, SIGTERM only if that fails.
  child_stop(run.backend.child);
  child_stop(run.emulator);
  for (std::FILE* f : {run.backend_log, run.emulator_log}) {
    if (f != nullptr) std::fclose(f);
  }
  std::remove((std::string(dir) + "/router.cfg").c_str());
  rmdir(dir);
  return passed ? 0 : 1;
}

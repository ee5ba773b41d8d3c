// Synchronisation time against its floor, and the cost of a connected backend
// at rest: CPU time while it polls, and its peak resident memory.
#include "e2e.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "harness.h"
#include "router/link_texts.h"

namespace {

// Every exchange sleeps 10 ms before it looks for its reply, once per reply
// message: this is the wait cycle the floor counts.
constexpr double wait_cycle_ms = 10.0;
constexpr int sync_wait_ms = 30000;

struct sync_sample {
  double ms = 0;           // connect attempt to the routing report read by the parent
  long exchanges = 0;      // send-and-wait exchanges of the sync
  long messages = 0;       // reply messages the switcher sent to them
  double cpu_wait_ms = 0;  // the backend's time runnable but without a CPU
};

// The first backend diagnostic that starts a connection attempt.
long find_connect_line(const bench_session& s) {
  for (std::size_t i = 0; i < s.backend_log.lines.size(); ++i) {
    const std::string& text = s.backend_log.lines[i].text;
    if (link_line_is(text, link_trying) || link_line_is(text, link_connected_at_once)) {
      return static_cast<long>(i);
    }
  }
  return -1;
}

// Counts the requests and answers from the first identity query to the
// first status poll: every answer costs the sync one wait cycle, and every
// request is one exchange. The handshake that comes before is sent and polled
// without sleeping, so it is not counted.
bool count_sync_exchanges(bench_session& s, sync_sample& out) {
  const long first_poll = session_wait_line(s, s.emulator_log, 0, "recv BK F", 3000);
  const long identity = session_wait_line(s, s.emulator_log, 0, "recv BK N", 0);
  if (first_poll < 0 || identity < 0) return false;
  for (long i = identity; i < first_poll; ++i) {
    const std::string& text = s.emulator_log.lines[static_cast<std::size_t>(i)].text;
    if (text.rfind("send ", 0) == 0) ++out.messages;
    if (text.rfind("recv ", 0) == 0) ++out.exchanges;
  }
  return out.messages > 0;
}

// Starts a fresh emulator and backend with n destinations and n sources and
// measures one synchronisation. False when it did not complete.
bool measure_sync(bench_session& s, const bench_paths& paths, int n, sync_sample& out) {
  const std::string count = std::to_string(n);
  if (!session_start_emulator(s, paths, {"--outputs", count, "--inputs", count})) return false;
  if (!session_start_backend(s, paths)) return false;
  const long report = session_wait_record(s, 0, ".input.all=", sync_wait_ms);
  const long connect = find_connect_line(s);
  if (report < 0 || connect < 0) {
    std::fprintf(stderr, "bench: no routing report within %d ms for %d outputs\n", sync_wait_ms, n);
    return false;
  }
  // From its start, which comes just before the connect.
  out.cpu_wait_ms = static_cast<double>(process_cpu_wait_us(s.backend.child.pid)) / 1000.0;
  const us_time_t t0 = s.backend_log.lines[static_cast<std::size_t>(connect)].t;
  const us_time_t t1 = s.records[static_cast<std::size_t>(report)].t;
  out.ms = static_cast<double>(t1 - t0) / 1000.0;
  return count_sync_exchanges(s, out);
}

// CPU share and polls over seconds of rest, then the peak resident size.
void measure_rest(bench_session& s, int seconds, std::vector<bench_row>& rows) {
  progress("%d s at rest, connected", seconds);
  // Let the reports that follow the sync go out first.
  session_pump_until(s, monotonic_now_us() + 1000000);
  const int pid = s.backend.child.pid;
  const std::size_t log_from = s.emulator_log.lines.size();
  const us_time_t t0 = monotonic_now_us();
  const std::uint64_t cpu0 = process_cpu_us(pid);
  session_pump_until(s, t0 + static_cast<us_time_t>(seconds) * 1000000);
  const std::uint64_t cpu1 = process_cpu_us(pid);
  const us_time_t t1 = monotonic_now_us();
  long polls = 0;
  for (std::size_t i = log_from; i < s.emulator_log.lines.size(); ++i) {
    if (s.emulator_log.lines[i].text == "recv BK F") ++polls;
  }
  const double share = 100.0 * static_cast<double>(cpu1 - cpu0) / static_cast<double>(t1 - t0);
  rows.push_back(
      {strf("idle: CPU over %d s connected, polling (1024 dest/src)", seconds),
       strf("%.3f %% of one core", share), "", "", "< 0.5 %", verdict(share < 0.5),
       strf("%.1f ms CPU, %ld status requests, %.0f us CPU per request", (cpu1 - cpu0) / 1e3, polls,
            polls > 0 ? static_cast<double>(cpu1 - cpu0) / polls : 0.0)});

  const std::uint64_t hwm = process_status_kib(pid, "VmHWM");
  const std::uint64_t rss_file = process_status_kib(pid, "RssFile");
  const std::uint64_t rss_anon = process_status_kib(pid, "RssAnon");
  rows.push_back(
      {"peak resident memory (VmHWM), 1024 dest/src, after sync and rest",
       strf("%.2f MiB", hwm / 1024.0), "", "", "< 4 MiB", verdict(hwm < 4096),
       strf("now: %llu KiB anonymous + %llu KiB file-backed (code, libraries)",
            static_cast<unsigned long long>(rss_anon), static_cast<unsigned long long>(rss_file))});
}

// The same rest with standard error on /dev/null, which the backend accepts
// as a character device. The main loop's select watches descriptors 0 to 2
// for reading, and /dev/null is always readable, so select never waits.
void measure_rest_null_stderr(const bench_paths& paths, std::vector<bench_row>& rows) {
  constexpr int seconds = 5;
  progress("%d s at rest, standard error on /dev/null", seconds);
  bench_session s;
  // "$0" is the backend, "$@" its arguments: the shell gives way to it.
  const std::vector<std::string> wrapper = {"/bin/sh", "-c", "exec \"$0\" \"$@\" 2>/dev/null"};
  const std::string what =
      strf("idle with standard error on /dev/null: CPU over %d s (16 dest/src)", seconds);
  if (!session_start_emulator(s, paths, {"--outputs", "16", "--inputs", "16"}) ||
      !session_start_backend(s, paths, wrapper) ||
      session_wait_record(s, 0, ".input.all=", sync_wait_ms) < 0) {
    rows.push_back({what, "failed: no synchronisation", "", "", "", "", ""});
    return;
  }
  const int pid = s.backend.child.pid;
  const us_time_t t0 = monotonic_now_us();
  const std::uint64_t cpu0 = process_cpu_us(pid);
  const std::uint64_t wait0 = process_cpu_wait_us(pid);
  session_pump_until(s, t0 + seconds * 1000000ULL);
  const double wall = static_cast<double>(monotonic_now_us() - t0);
  const double cpu = static_cast<double>(process_cpu_us(pid) - cpu0);
  const double wait = static_cast<double>(process_cpu_wait_us(pid) - wait0);
  rows.push_back({what, strf("%.1f %% of one core", 100 * cpu / wall), "", "", "", "",
                  strf("select returns at once on every pass; waiting for a CPU %.0f %% of the "
                       "time; see RESULTS.md",
                       100 * wait / wall)});
}

}  // namespace

void run_sync_benchmarks(const bench_paths& paths, const e2e_options& opt,
                         std::vector<bench_row>& rows) {
  struct size_case {
    int n;
    int repeats;
  };
  const size_case cases[] = {
      {16, opt.sync_repeats}, {256, opt.sync_repeats}, {1024, opt.sync_repeats}};
  for (const size_case& c : cases) {
    progress("synchronisation with %d destinations and sources", c.n);
    std::vector<double> times;
    std::vector<double> cpu_waits;
    sync_sample counted;
    std::unique_ptr<bench_session> last;
    for (int r = 0; r < c.repeats; ++r) {
      auto s = std::make_unique<bench_session>();
      sync_sample sample;
      if (!measure_sync(*s, paths, c.n, sample)) break;
      times.push_back(sample.ms);
      cpu_waits.push_back(sample.cpu_wait_ms);
      if (!opt.dump_prefix.empty())
        session_dump(*s, opt.dump_prefix + "sync" + std::to_string(c.n));
      counted = sample;
      last = std::move(s);
    }
    const std::string what =
        strf("sync, %d dest/src (%d active): connect to routing report", c.n, std::min(c.n, 256));
    if (times.empty()) {
      rows.push_back({what, "failed", "", "", "<= 1.10 x floor", verdict(false), ""});
      continue;
    }
    const double median = percentile(times, 0.5);
    const double floor_ms = static_cast<double>(counted.messages) * wait_cycle_ms;
    const double ratio = median / floor_ms;
    rows.push_back(
        {what, strf("%.1f ms", median),
         strf("%.0f ms: (%ld exchanges + %ld continued-reply messages) x 10 ms", floor_ms,
              counted.exchanges, counted.messages - counted.exchanges),
         strf("%.3f", ratio), "<= 1.10 x floor", verdict(ratio <= 1.10),
         strf("median of %zu, range %.1f-%.1f ms; the backend waited for a CPU "
              "for median %.1f ms of it",
              times.size(), *std::min_element(times.begin(), times.end()),
              *std::max_element(times.begin(), times.end()), percentile(cpu_waits, 0.5))});
    // The largest switcher's backend stays on for the rest measurements.
    if (c.n == 1024 && last != nullptr) measure_rest(*last, opt.idle_seconds, rows);
  }
  measure_rest_null_stderr(paths, rows);
}

// The parent's side: how soon a flushed route change reaches the switcher,
// and how many "add" records per second the byte-wise channel takes.
#include "e2e.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "harness.h"

namespace {

constexpr int switcher_size = 16;
constexpr int reply_wait_ms = 10000;
// Flushes are spaced this far apart, plus a random part, so that every batch
// starts past the 66 ms pacing of the one before and at a random phase to the
// status requests.
constexpr us_time_t flush_spacing_us = 70000;
constexpr us_time_t flush_spacing_random_us = 30000;
// The backend's wait cycle, and the slack allowed around it when the queries
// of one status request are told apart from later traffic.
constexpr us_time_t wait_cycle_us = 10000;
constexpr us_time_t poll_overlap_window_us = 5000;

std::uint64_t next_random(std::uint64_t& state) {
  state = state * 6364136223846793005ULL + 1442695040888963407ULL;
  return state >> 33;
}

bool is_poll_traffic(const std::string& line) {
  return line == "recv BK F" || line.rfind("recv BK f ", 0) == 0 || line == "recv QD" ||
         line.rfind("recv QI ", 0) == 0;
}

struct interval {
  us_time_t from = 0;
  us_time_t to = 0;
};

// When each status request held the backend, from the emulator's log: from
// its "BK" "F" to the wait cycle that took the last reply message of its
// last query. The backend takes one reply message per 10 ms wait cycle, so
// the next query of the same request follows its predecessor by about that
// many cycles; a query that does not is the start of something else.
std::vector<interval> status_requests(const bench_session& s) {
  std::vector<interval> out;
  const std::vector<timed_text>& log = s.emulator_log.lines;
  auto replies_after = [&log](std::size_t i) {
    us_time_t n = 0;
    while (++i < log.size() && log[i].text.rfind("send ", 0) == 0) ++n;
    return n;
  };
  for (std::size_t i = 0; i < log.size(); ++i) {
    if (log[i].text != "recv BK F") continue;
    std::size_t last = i;
    for (std::size_t j = i + 1; j < log.size() && log[j].text != "recv BK F"; ++j) {
      const us_time_t due = log[last].t + replies_after(last) * wait_cycle_us;
      if (log[j].t > due + poll_overlap_window_us) break;
      if (is_poll_traffic(log[j].text)) last = j;
    }
    out.push_back({log[i].t, log[last].t + replies_after(last) * wait_cycle_us});
  }
  return out;
}

// Whether [t0, t1] overlaps a status request.
bool met_status_request(const std::vector<interval>& requests, us_time_t t0, us_time_t t1) {
  for (const interval& r : requests) {
    if (r.from <= t1 && t0 <= r.to) return true;
  }
  return false;
}

// Starts an emulator with 16 destinations and sources and a backend that has
// finished its synchronisation.
bool start_synced(bench_session& s, const bench_paths& paths) {
  const std::string n = std::to_string(switcher_size);
  if (!session_start_emulator(s, paths, {"--outputs", n, "--inputs", n})) return false;
  if (!session_start_backend(s, paths)) return false;
  return session_wait_record(s, 0, ".input.all=", 30000) >= 0;
}

// Sends one record and waits for the reply that carries its id.
bool request(bench_session& s, const std::string& id, const std::string& text) {
  const std::size_t from = s.records.size();
  return session_send(s, text) &&
         session_wait_record(s, from, "*ID=" + id + "\n", reply_wait_ms) >= 0;
}

// One timed change: flush written, "TI" read, and how long the backend, the
// emulator and the driver together waited for a CPU meanwhile.
struct change_sample {
  interval t;
  double cpu_wait_ms = 0;
  bool clear = false;  // no status request overlapped it
};

void add_latency_rows(const std::vector<change_sample>& samples,
                      const std::vector<interval>& requests, std::vector<bench_row>& rows) {
  std::vector<double> polls;
  for (const interval& r : requests) polls.push_back(static_cast<double>(r.to - r.from) / 1000.0);
  std::vector<double> all;
  std::vector<double> clear;
  std::vector<std::pair<double, double>> slowest_clear;  // latency, CPU wait
  for (const change_sample& c : samples) {
    const double ms = static_cast<double>(c.t.to - c.t.from) / 1000.0;
    all.push_back(ms);
    if (!c.clear) continue;
    clear.push_back(ms);
    slowest_clear.emplace_back(ms, c.cpu_wait_ms);
  }
  const double p99 = percentile(all, 0.99);
  rows.push_back(
      {strf("route latency: \"flush\" written to \"TI\" read by the emulator, %zu changes",
            all.size()),
       strf("median %.2f ms, p99 %.2f ms", percentile(all, 0.5), p99), "no wait cycle on the path",
       "", "p99 < 2 ms", verdict(p99 < 2.0),
       strf("p90 %.2f ms, max %.2f ms; %zu met a status request; the %zu status "
            "requests held the loop for median %.0f ms, max %.0f ms",
            percentile(all, 0.9), percentile(all, 1.0), all.size() - clear.size(), polls.size(),
            percentile(polls, 0.5), percentile(polls, 1.0))});
  // The slowest changes that met no status request, with their wait for a
  // CPU: what a busy machine adds on top.
  std::sort(slowest_clear.rbegin(), slowest_clear.rend());
  std::string slowest;
  for (std::size_t i = 0; i < slowest_clear.size() && i < 3; ++i) {
    slowest += strf("%s%.2f ms (%.2f)", i > 0 ? ", " : "", slowest_clear[i].first,
                    slowest_clear[i].second);
  }
  const double clear_p99 = percentile(clear, 0.99);
  rows.push_back({strf("route latency, the %zu changes clear of status requests", clear.size()),
                  strf("median %.2f ms, p99 %.2f ms", percentile(clear, 0.5), clear_p99), "", "",
                  "p99 < 2 ms", verdict(!clear.empty() && clear_p99 < 2.0),
                  "slowest, with the time the backend, the emulator and the driver waited for "
                  "a CPU in brackets: " +
                      slowest});
}

// Adds a change, waits past the pacing, flushes it and times the "TI".
void measure_latency(bench_session& s, const e2e_options& opt, std::vector<bench_row>& rows) {
  std::vector<change_sample> samples;
  std::uint64_t rng = 7;
  // The driver counts too: a late read of the emulator's line is late time.
  auto cpu_wait_us = [&s]() {
    return process_cpu_wait_us(s.backend.child.pid) + process_cpu_wait_us(s.emulator.pid) +
           process_cpu_wait_us(getpid());
  };
  // When the last batch started, as near as the driver sees it: the "TI".
  us_time_t last_batch = monotonic_now_us();
  for (int i = 0; i < opt.changes; ++i) {
    const int output = i % switcher_size;
    const int input = (i * 5 + 3) % switcher_size;
    if (!request(s, "a" + std::to_string(i), add_record("a" + std::to_string(i), input, output))) {
      break;
    }
    session_pump_until(s,
                       last_batch + flush_spacing_us + next_random(rng) % flush_spacing_random_us);
    const std::size_t log_from = s.emulator_log.lines.size();
    const std::size_t rec_from = s.records.size();
    const std::string id = "f" + std::to_string(i);
    const std::uint64_t wait0 = cpu_wait_us();
    const us_time_t t0 = monotonic_now_us();
    if (!session_send(s, queue_record(id, "flush"))) break;
    // The switcher numbers both tables from 1.
    const long ti = session_wait_line(s, s.emulator_log, log_from,
                                      strf("recv TI %X %X", output + 1, input + 1), reply_wait_ms);
    if (ti < 0) break;
    change_sample c;
    c.cpu_wait_ms = static_cast<double>(cpu_wait_us() - wait0) / 1000.0;
    if (session_wait_record(s, rec_from, "*ID=" + id + "\n", reply_wait_ms) < 0) break;
    last_batch = s.emulator_log.lines[static_cast<std::size_t>(ti)].t;
    c.t = {t0, last_batch};
    samples.push_back(c);
    s.marks.push_back({t0, "flush " + id});
  }
  // Status requests are known in full only afterwards, from the whole log.
  const std::vector<interval> requests = status_requests(s);
  for (change_sample& c : samples) c.clear = !met_status_request(requests, c.t.from, c.t.to);
  if (static_cast<int>(samples.size()) < opt.changes) {
    std::fprintf(stderr, "bench: only %zu of %d route changes completed\n", samples.size(),
                 opt.changes);
  }
  add_latency_rows(samples, requests, rows);
}

// Bursts of "add" records written as fast as the pipe takes them; the rate
// counts from the first byte written to the last reply read. The backend's
// CPU time and its time waiting for a CPU show how much of the burst it
// worked, and how much a busy machine held it back.
void measure_throughput(bench_session& s, const e2e_options& opt, double pass_us,
                        std::vector<bench_row>& rows) {
  std::vector<double> rates;
  double bytes_per_record = 0;
  double wall_us = 0;
  double cpu_us = 0;
  double wait_us = 0;
  const int pid = s.backend.child.pid;
  for (int r = 0; r < opt.burst_repeats; ++r) {
    std::string text;
    std::string last_id;
    for (int i = 0; i < opt.burst_records; ++i) {
      last_id = "t" + std::to_string(r) + "." + std::to_string(i);
      text += add_record(last_id, i % switcher_size, (i * 3) % switcher_size);
    }
    bytes_per_record = static_cast<double>(text.size()) / opt.burst_records;
    const std::size_t from = s.records.size();
    const std::uint64_t cpu0 = process_cpu_us(pid);
    const std::uint64_t wait0 = process_cpu_wait_us(pid);
    const us_time_t t0 = monotonic_now_us();
    if (!session_send(s, text)) break;
    const long last = session_wait_record(s, from, "*ID=" + last_id + "\n", 60000);
    if (last < 0) break;
    const us_time_t t1 = s.records[static_cast<std::size_t>(last)].t;
    cpu_us += static_cast<double>(process_cpu_us(pid) - cpu0);
    wait_us += static_cast<double>(process_cpu_wait_us(pid) - wait0);
    wall_us += static_cast<double>(t1 - t0);
    rates.push_back(opt.burst_records * 1e6 / static_cast<double>(t1 - t0));
    if (!request(s, "d" + std::to_string(r), queue_record("d" + std::to_string(r), "discard"))) {
      break;
    }
  }
  const std::string what =
      strf("parent throughput: \"add\" records through stdin, connected (%d per burst)",
           opt.burst_records);
  if (rates.empty()) {
    rows.push_back({what, "failed", "", "", ">= 3000 records/s", verdict(false), ""});
    return;
  }
  const double median = percentile(rates, 0.5);
  const double records = static_cast<double>(rates.size()) * opt.burst_records;
  // The ceiling the byte-wise channel allows: one pass per two bytes, each
  // pass at least the system calls it is made of.
  const double ceiling = pass_us > 0 ? 1e6 / (bytes_per_record / 2 * pass_us) : 0;
  rows.push_back(
      {what, strf("%.0f records/s", median),
       ceiling > 0 ? strf("ceiling %.0f records/s (%.1f passes x %.2f us)", ceiling,
                          bytes_per_record / 2, pass_us)
                   : "",
       ceiling > 0 ? strf("%.2f", median / ceiling) : "", ">= 3000 records/s",
       verdict(median >= 3000),
       strf("median of %zu, range %.0f-%.0f; %.0f bytes and %.1f us backend CPU a record "
            "(%.0f records per CPU second); backend on a CPU %.0f %%, waiting for one %.0f %% "
            "of the bursts",
            rates.size(), *std::min_element(rates.begin(), rates.end()),
            *std::max_element(rates.begin(), rates.end()), bytes_per_record, cpu_us / records,
            records * 1e6 / cpu_us, 100 * cpu_us / wall_us, 100 * wait_us / wall_us)});
}

}  // namespace

void run_parent_benchmarks(const bench_paths& paths, const e2e_options& opt, double pass_us,
                           std::vector<bench_row>& rows) {
  bench_session s;
  progress("route latency over %d changes", opt.changes);
  if (!start_synced(s, paths)) {
    rows.push_back({"route latency and parent throughput", "failed: no synchronisation", "", "", "",
                    verdict(false), ""});
    return;
  }
  measure_latency(s, opt, rows);
  if (!opt.dump_prefix.empty()) session_dump(s, opt.dump_prefix + "latency");
  progress("parent throughput");
  measure_throughput(s, opt, pass_us, rows);
}

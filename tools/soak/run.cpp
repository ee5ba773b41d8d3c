#include "soak/run.h"

#include <cstdlib>
#include <cstring>

#include "base/clock.h"
#include "router/link_texts.h"

namespace {

constexpr std::size_t tail_lines = 30;

bool has(const std::string& line, const char* text) {
  return line.find(text) != std::string::npos;
}

// Counts what one diagnostic line of the backend shows and keeps it for the
// failure report.
void take_backend_line(soak_run& run, const std::string& line) {
  backend_stats& s = run.stats;
  if (link_line_is(line, link_connected) || link_line_is(line, link_connected_at_once)) {
    ++s.connects;
  } else if (link_line_is(line, link_closed)) {
    ++s.closes;
  } else if (has(line, "<ERR>Timeout receiving message") ||
             has(line, "<ERR>Timeout sending message")) {
    ++s.timeouts;
  } else if (has(line, "<WARN>Connection timeout")) {
    ++s.watchdog;
  } else if (line.compare(0, 26, "Discarding unexpected byte") == 0) {
    ++s.stray;
  } else if (has(line, "invalid checksum")) {
    ++s.checksum;
  } else if (has(line, "<DBG>Sending periodic status request")) {
    ++s.polls;
  }
  if (run.backend_log != nullptr) std::fprintf(run.backend_log, "%s\n", line.c_str());
  s.tail.push_back(line);
  if (s.tail.size() > tail_lines) s.tail.pop_front();
}

// One record of the backend's standard output. Replies to report requests
// carry only a type and an id, so every record holds at least one line.
void take_backend_record(soak_run& run, const client_record& record) {
  if (record.text.empty()) {
    run_fail(run, "backend wrote an empty line outside a record");
    return;
  }
  script_take_record(run.parent, run.layout, record.msg, record.at);
}

// "route DEST SOURCE" lines of a "routes" answer, in switcher numbers.
void take_route_lines(soak_run& run) {
  run.switcher_routes.clear();
  std::string lines = run.route_lines;
  for (std::string line; child_take_line(lines, line);) {
    char* end = nullptr;
    const long long dest = std::strtoll(line.c_str() + 6, &end, 10);
    const long long src = std::strtoll(end, nullptr, 10);
    run.switcher_routes[dest - run.layout.output_base] = src - run.layout.input_base;
  }
  run.route_lines.clear();
}

// The emulator's standard output after its port line: the answers to the
// controls, each ended by "ok" or "error <reason>".
void take_emulator_output(soak_run& run, const std::string& line) {
  if (line.compare(0, 6, "route ") == 0) {
    run.route_lines += line + "\n";
    return;
  }
  if (run.controls.empty()) {
    run_fail(run, "emulator wrote \"" + line + "\" without being asked");
    return;
  }
  const std::string control = run.controls.front();
  run.controls.pop_front();
  if (line != "ok") run_fail(run, "emulator answered \"" + control + "\" with \"" + line + "\"");
  if (control == "routes") take_route_lines(run);
  run.route_lines.clear();
}

// A child that ends before the soak lets it is a failure of the run.
void check_alive(soak_run& run) {
  if (run.backend.child.reaped && !run.backend_may_end) {
    run_fail(run, "backend ended: " + child_describe_end(run.backend.child));
  }
  if (run.emulator.reaped && !run.backend_may_end) {
    run_fail(run, "emulator ended: " + child_describe_end(run.emulator));
  }
}

}  // namespace

void run_pump(soak_run& run, int wait_ms) {
  client_pump(run.backend, wait_ms);
  // Diagnostics first: a connection note is then counted before the reports
  // that the synchronisation on that connection writes.
  for (; !run.backend.diags.empty(); run.backend.diags.pop_front()) {
    take_backend_line(run, run.backend.diags.front().text);
  }
  for (; !run.backend.records.empty(); run.backend.records.pop_front()) {
    take_backend_record(run, run.backend.records.front());
  }
  std::string line;
  while (child_take_line(run.emulator.out_buf, line)) take_emulator_output(run, line);
  while (child_take_line(run.emulator.err_buf, line)) {
    if (run.emulator_log != nullptr) std::fprintf(run.emulator_log, "%s\n", line.c_str());
    else std::fprintf(stderr, "soak: emulator: %s\n", line.c_str());
  }
  if (!run.parent.failure.empty()) run_fail(run, run.parent.failure);
  check_alive(run);
}

bool run_until(soak_run& run, int timeout_ms, const std::function<bool()>& done) {
  const us_time_t end = monotonic_now_us() + static_cast<us_time_t>(timeout_ms) * 1000;
  while (run.failure.empty()) {
    if (done()) return true;
    if (monotonic_now_us() >= end) return false;
    run_pump(run, 20);
  }
  return false;
}

void run_control(soak_run& run, const std::string& line) {
  run.controls.push_back(line);
  child_write(run.emulator, line + "\n");
}

bool run_controls_done(soak_run& run, int timeout_ms) {
  if (run_until(run, timeout_ms, [&run] { return run.controls.empty(); })) return true;
  if (!run.controls.empty()) {
    run_fail(run, "emulator did not answer \"" + run.controls.front() + "\"");
  }
  return false;
}

void run_fail(soak_run& run, const std::string& why) {
  if (run.failure.empty()) run.failure = why;
}

#pragma once

#include <cstdint>
#include <cstdio>
#include <deque>
#include <functional>
#include <map>
#include <string>

#include "parent_client/client.h"
#include "soak/script.h"

// One soak run: the two children, the scripted parent, the emulator's control
// answers and what the backend's diagnostics tell, moved forward by one pump.

// Counts of the backend's diagnostic lines that show the faults at work.
struct backend_stats {
  std::uint64_t connects = 0;   // connections made
  std::uint64_t closes = 0;     // connections closed
  std::uint64_t timeouts = 0;   // exchanges and handshakes that gave up
  std::uint64_t watchdog = 0;   // silent connections dropped
  std::uint64_t stray = 0;      // bytes outside frames
  std::uint64_t checksum = 0;   // frames with a wrong checksum
  std::uint64_t polls = 0;      // periodic status requests
  std::deque<std::string> tail;  // the last lines, for a failure report
};

struct soak_run {
  soak_layout layout;
  soak_parent parent;
  child_process emulator;
  parent_client backend;
  backend_stats stats;
  std::FILE* backend_log = nullptr;   // every backend diagnostic line, when asked for
  std::FILE* emulator_log = nullptr;  // the emulator's verbose log, when asked for
  std::string failure;                // the first thing found wrong
  std::uint64_t stalls = 0;           // stretches in which the parent read nothing
  bool backend_may_end = false;       // set once the soak closes its input
  std::deque<std::string> controls;   // sent to the emulator, not yet answered
  std::string route_lines;            // "route" lines of the answer being read
  std::map<std::int64_t, std::int64_t> switcher_routes;  // output -> input position
};

// Moves the run on by one wait of at most wait_ms: pipes, records, lines,
// the children's ends. Problems found land in run.failure.
void run_pump(soak_run& run, int wait_ms);

// Pumps until done() holds (true), or until timeout_ms have passed or a
// failure was found (false).
[[nodiscard]] bool run_until(soak_run& run, int timeout_ms, const std::function<bool()>& done);

// Sends one control line to the emulator and notes it as waiting.
void run_control(soak_run& run, const std::string& line);

// Waits up to timeout_ms for every control sent to be answered; a failure
// when one is not.
[[nodiscard]] bool run_controls_done(soak_run& run, int timeout_ms);

// Records why the run failed, unless an earlier reason is already known.
void run_fail(soak_run& run, const std::string& why);

#pragma once

// The real backend and the switcher emulator as children on loopback, with
// every line they write kept together with the time the driver read it.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "base/clock.h"
#include "parent_client/client.h"
#include "parent_client/temp_dir.h"

// Where the two programs are.
struct bench_paths {
  std::string backend;
  std::string emulator;
};

// One line (without its "\n"), or one parent record (its lines without the
// ending empty line), and when the driver read its last byte.
struct timed_text {
  us_time_t t = 0;
  std::string text;
};

// Output of one child descriptor, split as it arrives.
struct timed_stream {
  std::string partial;            // bytes after the last complete line
  std::vector<timed_text> lines;  // complete lines, oldest first
};

struct bench_session {
  temp_dir dir;
  child_process emulator;  // --verbose: its stderr is the frame log
  parent_client backend;   // stopped first, as a parent stops it
  timed_stream emulator_log;        // emulator standard output and error
  timed_stream backend_log;         // backend standard error, line by line
  std::vector<timed_text> records;  // backend records, complete ones only
  std::string port;                 // the emulator's listening port
  std::vector<timed_text> marks;    // the driver's own events, for dumps
};

// Starts the emulator with its frame log on an ephemeral port, adding extra
// options. False (with a line on stderr) when it does not come up in 10 s.
[[nodiscard]] bool session_start_emulator(bench_session& s, const bench_paths& paths,
                                          const std::vector<std::string>& extra);

// Starts the backend on a configuration naming the emulator, optionally
// under a wrapper command (such as strace) put in front of it.
[[nodiscard]] bool session_start_backend(bench_session& s, const bench_paths& paths,
                                         const std::vector<std::string>& wrapper = {});

// Waits at most ms for output of either child and takes everything readable.
void session_pump(bench_session& s, int ms);

// Pumps until the deadline (absolute, monotonic microseconds).
void session_pump_until(bench_session& s, us_time_t deadline);

// Writes text to the backend's standard input, pumping the children's output
// while the pipe is full. False when the backend's input is gone or 10 s pass.
[[nodiscard]] bool session_send(bench_session& s, const std::string& text);

// The first record from index from on that holds needle; waits at most ms.
// Returns its index, or -1.
[[nodiscard]] long session_wait_record(bench_session& s, std::size_t from,
                                       const std::string& needle, int ms);

// The first line of stream from index from on that holds needle; waits at
// most ms. Returns its index, or -1.
[[nodiscard]] long session_wait_line(bench_session& s, timed_stream& stream, std::size_t from,
                                     const std::string& needle, int ms);

// Writes the logs, each line stamped with the time it was read (ms), as
// files prefix.emulator, prefix.backend, prefix.records and prefix.marks.
void session_dump(const bench_session& s, const std::string& prefix);

// CPU time the process has used so far, in microseconds (scheduler
// accounting when the kernel offers it, else clock ticks).
[[nodiscard]] std::uint64_t process_cpu_us(int pid);

// Time the process has spent runnable but waiting for a CPU, in
// microseconds; 0 when the kernel keeps no scheduler statistics.
[[nodiscard]] std::uint64_t process_cpu_wait_us(int pid);

// A "Vm..." value of /proc/<pid>/status in KiB, or 0 when absent.
[[nodiscard]] std::uint64_t process_status_kib(int pid, const std::string& key);

// A parent record adding the change from input to output, with the given id.
[[nodiscard]] std::string add_record(const std::string& id, int input, int output);

// A parent record asking for queue (flush, discard) with the given id.
[[nodiscard]] std::string queue_record(const std::string& id, const std::string& queue);

#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

// Programs run as children with pipes on their descriptors 0, 1 and 2, as a
// parent runs the backend. Every child that runs is served by every pump:
// whatever a caller waits for, queued input goes out and standard output and
// error are read as soon as they are readable, so no child ever blocks on a
// full pipe, however much it writes.

struct child_process {
  pid_t pid = -1;
  int in_fd = -1;             // our end of its standard input; -1 once closed
  int out_fd = -1;            // our end of its standard output; -1 at its end
  int err_fd = -1;            // our end of its standard error; -1 at its end
  std::string to_write;       // for its standard input, not yet taken by the pipe
  std::string out_buf;        // read from its standard output, not yet taken
  std::string err_buf;        // read from its standard error, not yet taken
  bool reaped = false;        // ended and waited for; wait_status is valid
  int wait_status = 0;
  int end_of_input_ms = 5000;  // how long child_stop waits after closing its input
  bool out_paused = false;     // its standard output is left unread, as by a parent that stalls

  child_process() = default;
  child_process(const child_process&) = delete;
  child_process& operator=(const child_process&) = delete;
  ~child_process();  // child_stop
};

// The program name found beside the running program, one directory up (the
// build tree keeps the backend there) or on PATH; name itself when none is.
[[nodiscard]] std::string child_find_program(const std::string& name);

// Starts path with argv (argv[0] included) in a process group of its own, so
// that a terminal's signals reach only us; it gets SIGTERM should we die.
// A non-empty stdout_path makes its standard output that regular file. False,
// with a line on our standard error, when it could not start.
[[nodiscard]] bool child_start(child_process& c, const std::string& path,
                               const std::vector<std::string>& argv,
                               const std::string& stdout_path = "");

// Queues text for the child's standard input and writes what the pipe takes
// now; the pumps write the rest. Dropped once its input is closed.
void child_write(child_process& c, const std::string& text);

// Waits up to timeout_ms for every running child's pipes, then moves what
// they can take or give: queued input out, output and error in. Reaps
// children that ended. With nothing to watch it just sleeps.
void child_pump(int timeout_ms);

// child_pump that also watches fd for reading (a console's own input); true
// when fd is readable or at its end.
[[nodiscard]] bool child_pump_watching(int timeout_ms, int fd);

// Pumps until done() holds (true) or timeout_ms have passed (false).
[[nodiscard]] bool child_wait(const std::function<bool()>& done, int timeout_ms);

// Takes one line (without its "\n") from the front of text; false when no
// whole line waits.
[[nodiscard]] bool child_take_line(std::string& text, std::string& line);

// Writes what is queued (for at most 10 s, pumping), then closes our end of
// the child's standard input: its end of input.
void child_close_input(child_process& c);

// The child's exit status, or -1 when it did not end within timeout_ms or was
// killed by a signal. Its pipes are read to their end first.
int child_wait_exit(child_process& c, int timeout_ms);

// Ends the child as a parent ends the backend: end of input, then SIGTERM
// after end_of_input_ms, SIGKILL only when that is ignored for 5 s more.
// Closes our pipe ends; nothing is pumped for it afterwards.
void child_stop(child_process& c);

// "exit status N", "killed by signal N (name)" or "running".
[[nodiscard]] std::string child_describe_end(const child_process& c);

// A "kB" field of /proc/<pid>/status (for example "VmRSS"), or -1 when it
// cannot be read.
[[nodiscard]] long child_status_kib(const child_process& c, const char* field);

// The CPU time the child has used so far, user and system, in milliseconds;
// -1 when it cannot be read.
[[nodiscard]] long child_cpu_ms(const child_process& c);

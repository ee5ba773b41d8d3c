#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

// The real binary as a child process with pipes on its descriptors 0, 1 and 2.
// The destructor always kills and reaps the child.
struct child_process {
  pid_t pid = -1;
  int in_fd = -1;   // our end of the child's standard input
  int out_fd = -1;  // our end of the child's standard output
  int err_fd = -1;  // our end of the child's standard error
  std::string out_buf;  // read from out_fd, not yet taken
  std::string err_buf;  // read from err_fd, not yet taken
  bool reaped = false;  // the child has exited and was waited for
  int wait_status = 0;  // waitpid status once reaped

  child_process() = default;
  child_process(const child_process&) = delete;
  child_process& operator=(const child_process&) = delete;
  ~child_process();
};

// Options for starting a child. An empty stdout_path means a pipe; otherwise
// the child's standard output is that file (to test descriptor checks).
struct spawn_options {
  std::string stdout_path;
};

// Starts path with argv (argv[0] included). False when it could not start.
bool spawn(child_process& c, const std::string& path, const std::vector<std::string>& argv,
           const spawn_options& opt = {});

// Writes text to the child's standard input, waiting up to 5 s for room.
bool send_text(child_process& c, const std::string& text);
// Closes our end of the child's standard input.
void close_input(child_process& c);

// Waits up to timeout_ms for one complete parent record (ended by an empty
// line) on the child's standard output; returns its text without the empty
// line, or "" when none arrived.
std::string read_record(child_process& c, int timeout_ms);

// Waits up to timeout_ms for a standard-error line containing text; returns
// the whole line with its "\n", or "" when none arrived. When it is found, it
// and the lines before it are consumed.
std::string wait_for_stderr(child_process& c, const std::string& text, int timeout_ms);

// Everything written on standard error so far (waiting up to timeout_ms for
// more while the child runs), without consuming it.
const std::string& stderr_so_far(child_process& c, int timeout_ms = 0);

// Waits up to timeout_ms for the child to exit; returns its exit status, or
// -1 when it did not exit in time (or died of a signal).
int wait_exit(child_process& c, int timeout_ms);

void send_signal(child_process& c, int sig);

// Waits up to timeout_ms until the child catches sig with a handler of its
// own (read from /proc); a signal sent after that cannot hit a default action.
bool wait_signal_caught(child_process& c, int sig, int timeout_ms);

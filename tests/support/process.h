#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

// A program run as a child with pipes on its descriptors 0, 1 and 2. The
// destructor stops it as a parent would (end of input, then SIGTERM, SIGKILL
// only after a timeout) and reaps it.
struct child_process {
  pid_t pid = -1;
  int in_fd = -1, out_fd = -1, err_fd = -1;  // our ends of its stdin, stdout and stderr
  std::string out_buf, err_buf;              // read from out_fd / err_fd, not yet taken
  bool reaped = false;                       // exited and waited for; wait_status is valid
  int wait_status = 0;

  child_process() = default;
  child_process(const child_process&) = delete;
  child_process& operator=(const child_process&) = delete;
  ~child_process();
};

// Starts path with argv (argv[0] included). A non-empty stdout_path makes the
// child's stdout that regular file instead of a pipe. False when it failed.
bool spawn(child_process& c, const std::string& path, const std::vector<std::string>& argv,
           const std::string& stdout_path = "");

// Writes all of text to the child's stdin (blocking); false on failure.
bool send_text(child_process& c, const std::string& text);
void close_input(child_process& c);

// Wait up to timeout_ms for one parent record (ended by an empty line) or one
// line on the child's stdout; return it without the empty line or the "\n",
// or "" when none arrived.
std::string read_record(child_process& c, int timeout_ms);
std::string read_line(child_process& c, int timeout_ms);

// Waits up to timeout_ms for a stderr line containing text and returns it with
// its "\n", consuming it and the lines before; "" when none arrived.
std::string wait_for_stderr(child_process& c, const std::string& text, int timeout_ms);

// All of stderr so far, after reading for up to timeout_ms while the child
// runs; consumes nothing.
const std::string& stderr_so_far(child_process& c, int timeout_ms = 0);

// The child's exit status, or -1 when it did not exit within timeout_ms or
// died of a signal.
int wait_exit(child_process& c, int timeout_ms);

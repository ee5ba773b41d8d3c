#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

// Child processes with pipes on their descriptors 0, 1 and 2, driven without
// blocking: the soak writes to their standard input, reads their standard
// output and error, and watches for their end.

struct soak_child {
  pid_t pid = -1;
  int in_fd = -1;         // our end of its standard input; -1 once closed
  int out_fd = -1;        // our end of its standard output; -1 at its end
  int err_fd = -1;        // our end of its standard error; -1 at its end
  std::string to_write;   // bytes for its standard input not yet written
  std::string out;        // read from its standard output, not yet taken
  std::string err;        // read from its standard error, not yet taken
  bool exited = false;    // reaped; status holds the waitpid status
  int status = 0;
};

// Starts path with argv (argv[0] included). False, with a line on stderr,
// when it could not start.
[[nodiscard]] bool child_start(soak_child& c, const std::string& path,
                               const std::vector<std::string>& argv);

// Queues text for the child's standard input; it is written as the pipe
// takes it, by child_pump.
void child_write(soak_child& c, const std::string& text);

// Waits up to timeout_ms for any pipe of the children to be ready, then moves
// what it can: queued input out, output and error in. Reaps children that ended.
void child_pump(const std::vector<soak_child*>& children, int timeout_ms);

// Takes one line (without its "\n") from text; false when no whole line waits.
[[nodiscard]] bool child_take_line(std::string& text, std::string& line);

// Closes our end of the child's standard input (its end of file).
void child_close_input(soak_child& c);

// Kills and reaps a child that still runs; closes our pipe ends.
void child_stop(soak_child& c);

// "exit status N", "killed by signal N (name)" or "running".
[[nodiscard]] std::string child_describe_end(const soak_child& c);

// A "kB" field of /proc/<pid>/status (for example "VmRSS"), or -1 when it
// cannot be read.
[[nodiscard]] long child_status_kib(const soak_child& c, const char* field);

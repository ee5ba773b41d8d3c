#include "support/process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <initializer_list>
#include <thread>

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// An absolute point in time; every wait below derives its timeout from one.
struct deadline {
  steady_clock::time_point end;
  explicit deadline(int ms) : end(steady_clock::now() + milliseconds(ms)) {}
  int left_ms() const {
    const auto left = std::chrono::duration_cast<milliseconds>(end - steady_clock::now());
    return static_cast<int>(std::max<long long>(0, left.count()));
  }
};

void close_if_open(int& fd) {
  if (fd >= 0) close(fd);
  fd = -1;
}

// Appends everything readable on fd to buf without blocking; closes fd at end
// of stream or on a failure, so it is never polled again.
void drain(int& fd, std::string& buf) {
  while (fd >= 0) {
    char chunk[4096];
    const ssize_t n = read(fd, chunk, sizeof chunk);
    if (n > 0) {
      buf.append(chunk, static_cast<std::size_t>(n));
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else {
      if (n == 0 || errno != EAGAIN) close_if_open(fd);
      return;
    }
  }
}

// Waits up to ms for the child's output and takes what arrived. With both
// pipes closed it just sleeps, so callers can use it as their wait step.
void pump_output(child_process& c, int ms) {
  pollfd p[2];
  nfds_t n = 0;
  if (c.out_fd >= 0) p[n++] = pollfd{c.out_fd, POLLIN, 0};
  if (c.err_fd >= 0) p[n++] = pollfd{c.err_fd, POLLIN, 0};
  if (n == 0) {
    std::this_thread::sleep_for(milliseconds(ms));
    return;
  }
  if (poll(p, n, ms) > 0) {
    drain(c.out_fd, c.out_buf);
    drain(c.err_fd, c.err_buf);
  }
}

bool try_reap(child_process& c) {
  if (c.reaped || c.pid <= 0) return c.reaped;
  int status = 0;
  if (waitpid(c.pid, &status, WNOHANG) != c.pid) return false;
  c.reaped = true;
  c.wait_status = status;
  return true;
}

void set_nonblocking(int fd) { fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK); }

}  // namespace

child_process::~child_process() {
  if (pid > 0 && !reaped) {
    kill(pid, SIGKILL);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
  }
  close_if_open(in_fd);
  close_if_open(out_fd);
  close_if_open(err_fd);
}

bool spawn(child_process& c, const std::string& path, const std::vector<std::string>& argv,
           const spawn_options& opt) {
  assert(c.pid < 0);
  // Writing to a child that has already gone must fail, not kill the test.
  std::signal(SIGPIPE, SIG_IGN);

  int in[2] = {-1, -1}, out[2] = {-1, -1}, err[2] = {-1, -1};
  int out_file = -1;
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0 ||
      (!opt.stdout_path.empty() &&
       (out_file = open(opt.stdout_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC,
                        0644)) < 0)) {
    for (int* fd : {&in[0], &in[1], &out[0], &out[1], &err[0], &err[1]}) close_if_open(*fd);
    return false;
  }
  // Built before fork: the child may only make async-signal-safe calls.
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);

  const pid_t pid = fork();
  if (pid == 0) {
    // The child starts with the default signal handling the test ignored.
    std::signal(SIGPIPE, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    dup2(in[0], STDIN_FILENO);
    dup2(out_file >= 0 ? out_file : out[1], STDOUT_FILENO);
    dup2(err[1], STDERR_FILENO);
    execv(path.c_str(), args.data());
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  close(err[1]);
  close_if_open(out_file);
  if (pid < 0) {
    for (int* fd : {&in[1], &out[0], &err[0]}) close_if_open(*fd);
    return false;
  }
  c.pid = pid;
  c.in_fd = in[1];
  c.out_fd = out[0];
  c.err_fd = err[0];
  if (!opt.stdout_path.empty()) close_if_open(c.out_fd);
  set_nonblocking(c.in_fd);
  set_nonblocking(c.out_fd);
  set_nonblocking(c.err_fd);
  return true;
}

bool send_text(child_process& c, const std::string& text) {
  const deadline d(5000);
  std::size_t done = 0;
  while (done < text.size() && c.in_fd >= 0) {
    const ssize_t n = write(c.in_fd, text.data() + done, text.size() - done);
    if (n > 0) {
      done += static_cast<std::size_t>(n);
    } else if (n < 0 && errno == EAGAIN && d.left_ms() > 0) {
      // Keep the child's output flowing so it cannot stall on a full pipe.
      pump_output(c, std::min(d.left_ms(), 10));
    } else if (!(n < 0 && errno == EINTR)) {
      return false;
    }
  }
  return done == text.size();
}

void close_input(child_process& c) { close_if_open(c.in_fd); }

std::string read_record(child_process& c, int timeout_ms) {
  const deadline d(timeout_ms);
  for (;;) {
    const std::size_t end = c.out_buf.find("\n\n");
    if (end != std::string::npos) {
      std::string record = c.out_buf.substr(0, end + 1);
      c.out_buf.erase(0, end + 2);
      return record;
    }
    if (d.left_ms() == 0 || (c.out_fd < 0 && c.err_fd < 0)) return {};
    pump_output(c, d.left_ms());
  }
}

std::string wait_for_stderr(child_process& c, const std::string& text, int timeout_ms) {
  const deadline d(timeout_ms);
  std::size_t scanned = 0;  // lines before this offset do not hold text
  for (;;) {
    for (std::size_t nl; (nl = c.err_buf.find('\n', scanned)) != std::string::npos;) {
      std::string line = c.err_buf.substr(scanned, nl + 1 - scanned);
      scanned = nl + 1;
      if (line.find(text) != std::string::npos) {
        c.err_buf.erase(0, scanned);
        return line;
      }
    }
    if (d.left_ms() == 0 || c.err_fd < 0) return {};
    pump_output(c, d.left_ms());
  }
}

const std::string& stderr_so_far(child_process& c, int timeout_ms) {
  const deadline d(timeout_ms);
  do {
    pump_output(c, d.left_ms());
  } while (c.err_fd >= 0 && d.left_ms() > 0);
  return c.err_buf;
}

int wait_exit(child_process& c, int timeout_ms) {
  const deadline d(timeout_ms);
  while (!try_reap(c)) {
    if (d.left_ms() == 0 || c.pid <= 0) return -1;
    pump_output(c, std::min(d.left_ms(), 10));
  }
  // The pipes now hold everything the child wrote.
  drain(c.out_fd, c.out_buf);
  drain(c.err_fd, c.err_buf);
  return WIFEXITED(c.wait_status) ? WEXITSTATUS(c.wait_status) : -1;
}

void send_signal(child_process& c, int sig) {
  if (c.pid > 0 && !c.reaped) kill(c.pid, sig);
}

bool wait_signal_caught(child_process& c, int sig, int timeout_ms) {
  const deadline d(timeout_ms);
  const unsigned long long bit = 1ULL << (sig - 1);
  for (;;) {
    std::ifstream status("/proc/" + std::to_string(c.pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
      // "SigCgt:" is the mask, in hexadecimal, of signals with a handler.
      if (line.rfind("SigCgt:", 0) == 0 && (std::stoull(line.substr(7), nullptr, 16) & bit) != 0) {
        return true;
      }
    }
    if (d.left_ms() == 0) return false;
    pump_output(c, std::min(d.left_ms(), 5));
  }
}

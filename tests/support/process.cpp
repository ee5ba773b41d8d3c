#include "support/process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>

#include "support/tcp_peer.h"

namespace {

using steady = std::chrono::steady_clock;

steady::time_point after_ms(int ms) { return steady::now() + std::chrono::milliseconds(ms); }

// Milliseconds left until end, clamped at zero.
int left_ms(steady::time_point end) {
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(end - steady::now());
  return ms.count() > 0 ? static_cast<int>(ms.count()) : 0;
}

void close_if_open(int& fd) {
  if (fd >= 0) close(fd);
  fd = -1;
}

// Appends what is readable on fd to buf; closes fd at end of stream or on a
// failure, so it is never polled again.
void drain(int& fd, std::string& buf) {
  char chunk[4096];
  for (ssize_t n; fd >= 0 && (n = read(fd, chunk, sizeof chunk)) != 0;) {
    if (n > 0) {
      buf.append(chunk, static_cast<std::size_t>(n));
    } else if (errno == EAGAIN) {
      return;
    } else if (errno != EINTR) {
      close_if_open(fd);
    }
  }
  close_if_open(fd);  // end of stream
}

// Waits up to ms for the child's output and takes it; with both pipes closed
// poll() just sleeps, so callers can use this as their wait step.
void pump(child_process& c, int ms) {
  pollfd p[2];
  nfds_t n = 0;
  for (int fd : {c.out_fd, c.err_fd}) {
    if (fd >= 0) p[n++] = pollfd{fd, POLLIN, 0};
  }
  if (poll(p, n, ms) > 0) {
    drain(c.out_fd, c.out_buf);
    drain(c.err_fd, c.err_buf);
  }
}

// Takes stdout text up to and including sep, returned without sep's last byte.
std::string take_stdout(child_process& c, const std::string& sep, int timeout_ms) {
  const steady::time_point end = after_ms(timeout_ms);
  std::size_t at;
  while ((at = c.out_buf.find(sep)) == std::string::npos) {
    if (left_ms(end) == 0 || c.out_fd < 0) return {};
    pump(c, left_ms(end));
  }
  std::string text = c.out_buf.substr(0, at + sep.size() - 1);
  c.out_buf.erase(0, at + sep.size());
  return text;
}

}  // namespace

// Stopped as a parent stops it: end of input, then SIGTERM, and SIGKILL only
// when neither ended it. A child that ends by itself writes its coverage data
// and runs its own closing steps.
child_process::~child_process() {
  if (pid > 0 && !reaped) {
    // A backend busy in a synchronisation sees either only when it returns
    // to its loop; the emulator ignores the end of its input.
    close_if_open(in_fd);
    if (wait_exit(*this, 1000) == -1 && !reaped) {
      kill(pid, SIGTERM);
      if (wait_exit(*this, 15000) == -1 && !reaped) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
      }
    }
  }
  close_if_open(in_fd);
  close_if_open(out_fd);
  close_if_open(err_fd);
}

bool spawn(child_process& c, const std::string& path, const std::vector<std::string>& argv,
           const std::string& stdout_path) {
  std::signal(SIGPIPE, SIG_IGN);  // writing to a child that has gone must fail, not kill us
  int in[2], out[2], err[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
    return false;
  }
  const int file = stdout_path.empty()
                       ? -1
                       : open(stdout_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  // Built before fork: the child may only make async-signal-safe calls.
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  c.pid = fork();
  if (c.pid == 0) {
    // The child starts with the signal handling the test runner changed reset.
    std::signal(SIGPIPE, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    dup2(in[0], STDIN_FILENO);
    dup2(file >= 0 ? file : out[1], STDOUT_FILENO);
    dup2(err[1], STDERR_FILENO);
    execv(path.c_str(), args.data());
    _exit(127);
  }
  for (int fd : {in[0], out[1], err[1], file}) {
    if (fd >= 0) close(fd);
  }
  c.in_fd = in[1];
  c.out_fd = out[0];
  c.err_fd = err[0];
  if (!stdout_path.empty()) close_if_open(c.out_fd);
  // Our stdin end blocks: each text sent fits in the pipe.
  for (int fd : {c.out_fd, c.err_fd}) {
    if (fd >= 0) fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  }
  return c.pid > 0 && (stdout_path.empty() || file >= 0);
}

bool send_text(child_process& c, const std::string& text) {
  return c.in_fd >= 0 && write_all(c.in_fd, text);
}

void close_input(child_process& c) { close_if_open(c.in_fd); }

std::string read_record(child_process& c, int timeout_ms) {
  return take_stdout(c, "\n\n", timeout_ms);
}

std::string read_line(child_process& c, int timeout_ms) { return take_stdout(c, "\n", timeout_ms); }

std::string wait_for_stderr(child_process& c, const std::string& text, int timeout_ms) {
  const steady::time_point end = after_ms(timeout_ms);
  for (std::size_t at, nl;; pump(c, left_ms(end))) {
    if ((at = c.err_buf.find(text)) != std::string::npos &&
        (nl = c.err_buf.find('\n', at)) != std::string::npos) {
      const std::size_t start = at == 0 ? 0 : c.err_buf.rfind('\n', at - 1) + 1;
      std::string line = c.err_buf.substr(start, nl + 1 - start);
      c.err_buf.erase(0, nl + 1);
      return line;
    }
    if (left_ms(end) == 0 || c.err_fd < 0) return {};
  }
}

const std::string& stderr_so_far(child_process& c, int timeout_ms) {
  const steady::time_point end = after_ms(timeout_ms);
  do {
    pump(c, left_ms(end));
  } while (c.err_fd >= 0 && left_ms(end) > 0);
  return c.err_buf;
}

int wait_exit(child_process& c, int timeout_ms) {
  const steady::time_point end = after_ms(timeout_ms);
  while (
      !(c.reaped = c.reaped || (c.pid > 0 && waitpid(c.pid, &c.wait_status, WNOHANG) == c.pid))) {
    if (c.pid <= 0 || left_ms(end) == 0) return -1;
    pump(c, 10);
  }
  // The pipes now hold everything the child wrote.
  drain(c.out_fd, c.out_buf);
  drain(c.err_fd, c.err_buf);
  return WIFEXITED(c.wait_status) ? WEXITSTATUS(c.wait_status) : -1;
}

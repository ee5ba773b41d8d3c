#include "soak/child.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr std::size_t read_chunk = 65536;

void close_fd(int& fd) {
  if (fd >= 0) close(fd);
  fd = -1;
}

// Reads what one pipe holds into into; closes it at its end or on an error.
void read_pipe(int& fd, std::string& into) {
  char buf[read_chunk];
  const ssize_t r = read(fd, buf, sizeof buf);
  if (r > 0) {
    into.append(buf, static_cast<std::size_t>(r));
  } else if (r == 0 || (errno != EAGAIN && errno != EINTR)) {
    close_fd(fd);
  }
}

void write_pipe(soak_child& c) {
  const ssize_t w = write(c.in_fd, c.to_write.data(), c.to_write.size());
  if (w > 0) {
    c.to_write.erase(0, static_cast<std::size_t>(w));
  } else if (w < 0 && errno != EAGAIN && errno != EINTR) {
    // The child no longer reads (it ended); what it did not take is lost.
    c.to_write.clear();
    close_fd(c.in_fd);
  }
}

void reap(soak_child& c) {
  if (c.exited || c.pid < 0) return;
  int status = 0;
  if (waitpid(c.pid, &status, WNOHANG) == c.pid) {
    c.exited = true;
    c.status = status;
  }
}

}  // namespace

bool child_start(soak_child& c, const std::string& path, const std::vector<std::string>& argv) {
  int in[2];
  int out[2];
  int err[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
    std::fprintf(stderr, "soak: pipe: %s\n", std::strerror(errno));
    return false;
  }
  std::vector<char*> args;
  args.reserve(argv.size() + 1);
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  c.pid = fork();
  if (c.pid < 0) {
    std::fprintf(stderr, "soak: fork: %s\n", std::strerror(errno));
    return false;
  }
  if (c.pid == 0) {
    // dup2 clears close-on-exec on the copies, so only 0, 1 and 2 survive exec.
    dup2(in[0], 0);
    dup2(out[1], 1);
    dup2(err[1], 2);
    execv(path.c_str(), args.data());
    std::fprintf(stderr, "soak: cannot run %s: %s\n", path.c_str(), std::strerror(errno));
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  close(err[1]);
  c.in_fd = in[1];
  c.out_fd = out[0];
  c.err_fd = err[0];
  // Our ends never block: a child that stops reading must not stop the soak.
  for (int fd : {c.in_fd, c.out_fd, c.err_fd}) fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  return true;
}

void child_write(soak_child& c, const std::string& text) {
  if (c.in_fd < 0) return;
  c.to_write += text;
  write_pipe(c);
}

void child_pump(const std::vector<soak_child*>& children, int timeout_ms) {
  std::vector<pollfd> fds;
  for (soak_child* c : children) {
    if (c->in_fd >= 0 && !c->to_write.empty()) fds.push_back({c->in_fd, POLLOUT, 0});
    if (c->out_fd >= 0) fds.push_back({c->out_fd, POLLIN, 0});
    if (c->err_fd >= 0) fds.push_back({c->err_fd, POLLIN, 0});
  }
  if (poll(fds.data(), fds.size(), timeout_ms) < 0 && errno != EINTR) {
    std::fprintf(stderr, "soak: poll: %s\n", std::strerror(errno));
  }
  for (soak_child* c : children) {
    for (const pollfd& p : fds) {
      if (p.revents == 0) continue;
      if (p.fd == c->in_fd) write_pipe(*c);
      else if (p.fd == c->out_fd) read_pipe(c->out_fd, c->out);
      else if (p.fd == c->err_fd) read_pipe(c->err_fd, c->err);
    }
    reap(*c);
  }
}

bool child_take_line(std::string& text, std::string& line) {
  const std::size_t end = text.find('\n');
  if (end == std::string::npos) return false;
  line.assign(text, 0, end);
  text.erase(0, end + 1);
  return true;
}

void child_close_input(soak_child& c) {
  c.to_write.clear();
  close_fd(c.in_fd);
}

void child_stop(soak_child& c) {
  if (c.pid > 0 && !c.exited) {
    kill(c.pid, SIGKILL);
    if (waitpid(c.pid, &c.status, 0) == c.pid) c.exited = true;
  }
  close_fd(c.in_fd);
  close_fd(c.out_fd);
  close_fd(c.err_fd);
}

std::string child_describe_end(const soak_child& c) {
  if (!c.exited) return "running";
  if (WIFEXITED(c.status)) return "exit status " + std::to_string(WEXITSTATUS(c.status));
  if (WIFSIGNALED(c.status)) {
    const int sig = WTERMSIG(c.status);
    return "killed by signal " + std::to_string(sig) + " (" + strsignal(sig) + ")";
  }
  return "ended, wait status " + std::to_string(c.status);
}

long child_status_kib(const soak_child& c, const char* field) {
  std::ifstream in("/proc/" + std::to_string(c.pid) + "/status");
  const std::string prefix = std::string(field) + ":";
  for (std::string line; std::getline(in, line);) {
    if (line.compare(0, prefix.size(), prefix) == 0) return std::atol(line.c_str() + prefix.size());
  }
  return -1;
}

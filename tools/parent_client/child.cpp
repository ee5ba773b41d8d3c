#include "parent_client/child.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace {

// Every child started and not yet stopped; each pump serves them all. Never
// destroyed: children that are objects of static duration stop at exit,
// perhaps after this file's own objects have gone.
std::vector<child_process*>& running = *new std::vector<child_process*>;

// One pump reads at most this much from one pipe, so a child that writes
// without pause cannot keep the others waiting.
constexpr std::size_t max_read_per_pump = 1 << 20;
constexpr int close_input_wait_ms = 10000;
constexpr int term_wait_ms = 5000;

using steady = std::chrono::steady_clock;

int left_ms(steady::time_point end) {
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(end - steady::now());
  return ms.count() > 0 ? static_cast<int>(ms.count()) : 0;
}

void close_fd(int& fd) {
  if (fd >= 0) close(fd);
  fd = -1;
}

// Reads what one pipe holds into buf; closes it at its end or on an error.
void read_pipe(int& fd, std::string& buf) {
  char chunk[65536];
  for (std::size_t taken = 0; fd >= 0 && taken < max_read_per_pump;) {
    const ssize_t n = read(fd, chunk, sizeof chunk);
    if (n > 0) {
      buf.append(chunk, static_cast<std::size_t>(n));
      taken += static_cast<std::size_t>(n);
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else {
      if (n == 0 || errno != EAGAIN) close_fd(fd);
      return;
    }
  }
}

void write_pipe(child_process& c) {
  while (c.in_fd >= 0 && !c.to_write.empty()) {
    const ssize_t n = write(c.in_fd, c.to_write.data(), c.to_write.size());
    if (n > 0) {
      c.to_write.erase(0, static_cast<std::size_t>(n));
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else {
      // EAGAIN: the pipe is full. Anything else: the child no longer reads,
      // and what it did not take is lost.
      if (!(n < 0 && errno == EAGAIN)) {
        c.to_write.clear();
        close_fd(c.in_fd);
      }
      return;
    }
  }
}

void reap(child_process& c) {
  if (!c.reaped && c.pid > 0 && waitpid(c.pid, &c.wait_status, WNOHANG) == c.pid) c.reaped = true;
}

// Waits until the child ended, pumping; true when it did.
bool wait_reaped(child_process& c, int timeout_ms) {
  return child_wait([&c] { return c.reaped; }, timeout_ms);
}

// The directory of the running program, for the programs built or installed
// beside it.
std::string own_directory() {
  char path[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  if (n <= 0) return ".";
  const std::string self(path, static_cast<std::size_t>(n));
  return self.substr(0, self.find_last_of('/'));
}

}  // namespace

child_process::~child_process() { child_stop(*this); }

std::string child_find_program(const std::string& name) {
  const std::string here = own_directory();
  std::string dirs = here + ":" + here + "/..";
  if (const char* path = std::getenv("PATH")) dirs += std::string(":") + path;
  for (std::size_t start = 0; start <= dirs.size();) {
    std::size_t end = dirs.find(':', start);
    if (end == std::string::npos) end = dirs.size();
    std::string candidate = dirs.substr(start, end - start) + "/" + name;
    if (end > start && access(candidate.c_str(), X_OK) == 0) return candidate;
    start = end + 1;
  }
  return name;
}

bool child_start(child_process& c, const std::string& path, const std::vector<std::string>& argv,
                 const std::string& stdout_path) {
  std::signal(SIGPIPE, SIG_IGN);  // writing to a child that has gone must fail, not kill us
  int in[2], out[2], err[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
    std::fprintf(stderr, "pipe: %s\n", std::strerror(errno));
    return false;
  }
  const int file = stdout_path.empty()
                       ? -1
                       : open(stdout_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (!stdout_path.empty() && file < 0) {
    std::fprintf(stderr, "cannot open %s: %s\n", stdout_path.c_str(), std::strerror(errno));
    for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]}) close(fd);
    return false;
  }
  // Tells us why exec failed; closed by a successful exec, so a read of it
  // returns nothing once the program runs.
  int exec_status[2];
  if (pipe2(exec_status, O_CLOEXEC) != 0) {
    std::fprintf(stderr, "pipe: %s\n", std::strerror(errno));
    return false;
  }
  // Built before fork: the child may only make async-signal-safe calls.
  std::vector<char*> args;
  args.reserve(argv.size() + 1);
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  const pid_t parent = getpid();
  c.pid = fork();
  if (c.pid == 0) {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(127);  // we died before the line above
    // The child starts with the signal handling its parent changed reset.
    std::signal(SIGPIPE, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    // dup2 clears close-on-exec on the copies, so only 0, 1 and 2 survive exec.
    dup2(in[0], STDIN_FILENO);
    dup2(file >= 0 ? file : out[1], STDOUT_FILENO);
    dup2(err[1], STDERR_FILENO);
    execv(path.c_str(), args.data());
    const int why = errno;
    (void)!write(exec_status[1], &why, sizeof why);
    _exit(127);
  }
  for (int fd : {in[0], out[1], err[1], file, exec_status[1]}) {
    if (fd >= 0) close(fd);
  }
  c.in_fd = in[1];
  c.out_fd = out[0];
  c.err_fd = err[0];
  int why = c.pid < 0 ? errno : 0;
  while (c.pid > 0 && read(exec_status[0], &why, sizeof why) < 0 && errno == EINTR) {
  }
  close(exec_status[0]);
  if (why != 0) {
    std::fprintf(stderr, "cannot run %s: %s\n", path.c_str(), std::strerror(why));
    if (c.pid > 0 && waitpid(c.pid, &c.wait_status, 0) == c.pid) c.reaped = true;
    child_stop(c);
    return false;
  }
  if (!stdout_path.empty()) close_fd(c.out_fd);
  // Our ends never block: a child that stops reading must not stop us.
  for (int fd : {c.in_fd, c.out_fd, c.err_fd}) {
    if (fd >= 0) fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  }
  running.push_back(&c);
  return true;
}

void child_write(child_process& c, const std::string& text) {
  if (c.in_fd < 0) return;
  c.to_write += text;
  write_pipe(c);
}

void child_pump(int timeout_ms) { (void)child_pump_watching(timeout_ms, -1); }

bool child_pump_watching(int timeout_ms, int fd) {
  std::vector<pollfd> fds;
  if (fd >= 0) fds.push_back({fd, POLLIN, 0});
  for (const child_process* c : running) {
    if (c->in_fd >= 0 && !c->to_write.empty()) fds.push_back({c->in_fd, POLLOUT, 0});
    if (c->out_fd >= 0 && !c->out_paused) fds.push_back({c->out_fd, POLLIN, 0});
    if (c->err_fd >= 0) fds.push_back({c->err_fd, POLLIN, 0});
  }
  // poll sees a child end when its pipes close; one whose pipes are closed
  // already is looked at every 10 ms.
  for (const child_process* c : running) {
    if (!c->reaped && c->out_fd < 0 && c->err_fd < 0) timeout_ms = std::min(timeout_ms, 10);
  }
  if (poll(fds.data(), fds.size(), timeout_ms) > 0) {
    for (child_process* c : running) {
      write_pipe(*c);
      if (!c->out_paused) read_pipe(c->out_fd, c->out_buf);
      read_pipe(c->err_fd, c->err_buf);
    }
  }
  for (child_process* c : running) reap(*c);
  return fd >= 0 && fds[0].revents != 0;
}

bool child_wait(const std::function<bool()>& done, int timeout_ms) {
  const steady::time_point end = steady::now() + std::chrono::milliseconds(timeout_ms);
  while (!done()) {
    if (left_ms(end) == 0) return false;
    child_pump(left_ms(end));
  }
  return true;
}

bool child_take_line(std::string& text, std::string& line) {
  const std::size_t end = text.find('\n');
  if (end == std::string::npos) return false;
  line.assign(text, 0, end);
  text.erase(0, end + 1);
  return true;
}

void child_close_input(child_process& c) {
  (void)child_wait([&c] { return c.in_fd < 0 || c.to_write.empty(); }, close_input_wait_ms);
  c.to_write.clear();
  close_fd(c.in_fd);
}

int child_wait_exit(child_process& c, int timeout_ms) {
  if (!wait_reaped(c, timeout_ms)) return -1;
  // The pipes now hold everything it wrote, unless it left them to others.
  (void)child_wait([&c] { return c.out_fd < 0 && c.err_fd < 0; }, 100);
  return WIFEXITED(c.wait_status) ? WEXITSTATUS(c.wait_status) : -1;
}

void child_stop(child_process& c) {
  if (c.pid > 0 && !c.reaped) {
    child_close_input(c);
    if (!wait_reaped(c, c.end_of_input_ms)) {
      kill(c.pid, SIGTERM);
      if (!wait_reaped(c, term_wait_ms)) {
        kill(c.pid, SIGKILL);
        if (waitpid(c.pid, &c.wait_status, 0) == c.pid) c.reaped = true;
      }
    }
  }
  close_fd(c.in_fd);
  close_fd(c.out_fd);
  close_fd(c.err_fd);
  running.erase(std::remove(running.begin(), running.end(), &c), running.end());
}

std::string child_describe_end(const child_process& c) {
  if (!c.reaped) return "running";
  if (WIFEXITED(c.wait_status)) return "exit status " + std::to_string(WEXITSTATUS(c.wait_status));
  if (WIFSIGNALED(c.wait_status)) {
    const int sig = WTERMSIG(c.wait_status);
    return "killed by signal " + std::to_string(sig) + " (" + strsignal(sig) + ")";
  }
  return "ended, wait status " + std::to_string(c.wait_status);
}

long child_cpu_ms(const child_process& c) {
  std::ifstream in("/proc/" + std::to_string(c.pid) + "/stat");
  std::string stat;
  std::getline(in, stat);
  // The command name in brackets may hold blanks; the fields after it do not.
  const std::size_t name_end = stat.rfind(')');
  if (name_end == std::string::npos) return -1;
  std::istringstream fields(stat.substr(name_end + 2));
  std::string field;
  long ticks = 0;
  // utime and stime are the 14th and 15th fields, the 12th and 13th after the name.
  for (int i = 1; i <= 13 && fields >> field; ++i) {
    if (i >= 12) ticks += std::atol(field.c_str());
  }
  return fields ? ticks * 1000 / sysconf(_SC_CLK_TCK) : -1;
}

long child_status_kib(const child_process& c, const char* field) {
  std::ifstream in("/proc/" + std::to_string(c.pid) + "/status");
  const std::string prefix = std::string(field) + ":";
  for (std::string line; std::getline(in, line);) {
    if (line.compare(0, prefix.size(), prefix) == 0) return std::atol(line.c_str() + prefix.size());
  }
  return -1;
}

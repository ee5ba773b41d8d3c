#include "harness.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <sstream>

namespace {

constexpr int start_wait_ms = 10000;

// Splits newly read bytes into lines, all stamped with the time of the read.
void take_bytes(timed_stream& s, const char* bytes, std::size_t n, us_time_t now) {
  s.partial.append(bytes, n);
  std::size_t start = 0;
  for (std::size_t nl; (nl = s.partial.find('\n', start)) != std::string::npos; start = nl + 1) {
    s.lines.push_back({now, s.partial.substr(start, nl - start)});
  }
  s.partial.erase(0, start);
}

// Parent records are blocks of lines ended by an empty line.
void take_record_lines(bench_session& s, std::size_t first_new) {
  for (std::size_t i = first_new; i < s.backend_out.lines.size(); ++i) {
    const timed_text& line = s.backend_out.lines[i];
    if (!line.text.empty()) {
      s.record_lines += line.text + "\n";
      continue;
    }
    s.records.push_back({line.t, s.record_lines});
    s.record_lines.clear();
  }
}

// Reads everything waiting on fd into stream; closes fd at end of stream.
void drain_fd(int& fd, timed_stream& stream) {
  while (fd >= 0) {
    char chunk[65536];
    const ssize_t n = read(fd, chunk, sizeof chunk);
    if (n > 0) {
      take_bytes(stream, chunk, static_cast<std::size_t>(n), monotonic_now_us());
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else {
      if (n == 0 || errno != EAGAIN) {
        close(fd);
        fd = -1;
      }
      return;
    }
  }
}

std::string config_text(const bench_session& s) {
  return "ip address = 127.0.0.1\nport = " + s.port + "\n";
}

}  // namespace

bool session_start_emulator(bench_session& s, const bench_paths& paths,
                            const std::vector<std::string>& extra) {
  std::vector<std::string> argv{"switcher_emulator", "--port", "0", "--verbose", "--no-controls"};
  argv.insert(argv.end(), extra.begin(), extra.end());
  if (!spawn(s.emulator, paths.emulator, argv)) {
    std::fprintf(stderr, "bench: cannot start %s\n", paths.emulator.c_str());
    return false;
  }
  // The first line of its standard output ends with the port.
  const std::string first = read_line(s.emulator, start_wait_ms);
  const std::size_t blank = first.find_last_of(' ');
  if (blank == std::string::npos) {
    std::fprintf(stderr, "bench: the emulator did not start: %s\n", s.emulator.err_buf.c_str());
    return false;
  }
  s.port = first.substr(blank + 1);
  take_bytes(s.emulator_log, s.emulator.err_buf.data(), s.emulator.err_buf.size(),
             monotonic_now_us());
  s.emulator.err_buf.clear();
  return true;
}

bool session_start_backend(bench_session& s, const bench_paths& paths,
                           const std::vector<std::string>& wrapper) {
  const std::string cfg = s.dir.write("router.cfg", config_text(s));
  std::vector<std::string> argv = wrapper;
  argv.insert(argv.end(), {paths.backend, "--file", cfg});
  const std::string& program = wrapper.empty() ? paths.backend : wrapper.front();
  if (!spawn(s.backend, program, argv)) {
    std::fprintf(stderr, "bench: cannot start %s\n", program.c_str());
    return false;
  }
  return true;
}

void session_pump(bench_session& s, int ms) {
  struct source {
    int* fd;
    timed_stream* stream;
  };
  const source sources[] = {{&s.emulator.err_fd, &s.emulator_log},
                            {&s.emulator.out_fd, &s.emulator_log},
                            {&s.backend.err_fd, &s.backend_log},
                            {&s.backend.out_fd, &s.backend_out}};
  pollfd p[4];
  nfds_t n = 0;
  for (const source& src : sources) {
    if (*src.fd >= 0) p[n++] = pollfd{*src.fd, POLLIN, 0};
  }
  if (n == 0) {
    usleep(static_cast<useconds_t>(ms) * 1000);
    return;
  }
  if (poll(p, n, ms) <= 0) return;
  const std::size_t first_new = s.backend_out.lines.size();
  for (const source& src : sources) drain_fd(*src.fd, *src.stream);
  take_record_lines(s, first_new);
}

void session_pump_until(bench_session& s, us_time_t deadline) {
  for (us_time_t now; (now = monotonic_now_us()) < deadline;) {
    session_pump(s, static_cast<int>((deadline - now + 999) / 1000));
  }
}

bool session_send(bench_session& s, const std::string& text) {
  const us_time_t deadline = monotonic_now_us() + 10000000;
  std::size_t done = 0;
  while (done < text.size()) {
    if (s.backend.in_fd < 0 || monotonic_now_us() >= deadline) return false;
    const ssize_t n = write(s.backend.in_fd, text.data() + done, text.size() - done);
    if (n > 0) {
      done += static_cast<std::size_t>(n);
    } else if (n < 0 && errno == EAGAIN) {
      // The backend takes its input a byte at a time. Wait for room instead
      // of retrying at once, which would take a core from it, and keep its
      // output flowing meanwhile so that it never stalls on a full pipe.
      pollfd room{s.backend.in_fd, POLLOUT, 0};
      (void)poll(&room, 1, 1);
      session_pump(s, 0);
    } else if (!(n < 0 && errno == EINTR)) {
      return false;
    }
  }
  return true;
}

long session_wait_record(bench_session& s, std::size_t from, const std::string& needle, int ms) {
  const us_time_t deadline = monotonic_now_us() + static_cast<us_time_t>(ms) * 1000;
  for (std::size_t i = from;;) {
    for (; i < s.records.size(); ++i) {
      if (s.records[i].text.find(needle) != std::string::npos) return static_cast<long>(i);
    }
    const us_time_t now = monotonic_now_us();
    if (now >= deadline) return -1;
    session_pump(s, static_cast<int>((deadline - now + 999) / 1000));
  }
}

long session_wait_line(bench_session& s, timed_stream& stream, std::size_t from,
                       const std::string& needle, int ms) {
  const us_time_t deadline = monotonic_now_us() + static_cast<us_time_t>(ms) * 1000;
  for (std::size_t i = from;;) {
    for (; i < stream.lines.size(); ++i) {
      if (stream.lines[i].text.find(needle) != std::string::npos) return static_cast<long>(i);
    }
    const us_time_t now = monotonic_now_us();
    if (now >= deadline) return -1;
    session_pump(s, static_cast<int>((deadline - now + 999) / 1000));
  }
}

void session_dump(const bench_session& s, const std::string& prefix) {
  auto dump = [](const std::vector<timed_text>& lines, const std::string& path) {
    std::FILE* f = std::fopen(path.c_str(), "w");
    if (f == nullptr) return;
    for (const timed_text& l : lines) {
      std::fprintf(f, "%.3f %s\n", static_cast<double>(l.t) / 1000.0, l.text.c_str());
    }
    std::fclose(f);
  };
  dump(s.emulator_log.lines, prefix + ".emulator");
  dump(s.backend_log.lines, prefix + ".backend");
  dump(s.records, prefix + ".records");
  dump(s.marks, prefix + ".marks");
}

std::uint64_t process_cpu_us(int pid) {
  // schedstat's first field is the time on a CPU in nanoseconds.
  std::ifstream sched("/proc/" + std::to_string(pid) + "/schedstat");
  std::uint64_t ns = 0;
  if (sched >> ns) return ns / 1000;
  // Otherwise utime and stime, fields 14 and 15 of stat, in clock ticks. The
  // command name (field 2) may hold blanks, so counting starts after its ")".
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  std::istringstream rest(text.substr(text.rfind(')') + 2));
  std::string field;
  std::uint64_t ticks = 0;
  for (int i = 3; rest >> field && i <= 15; ++i) {
    if (i >= 14) ticks += std::stoull(field);
  }
  return ticks * 1000000 / static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK));
}

std::uint64_t process_cpu_wait_us(int pid) {
  // schedstat: time on a CPU, time waiting on a run queue (both ns), slices.
  std::ifstream sched("/proc/" + std::to_string(pid) + "/schedstat");
  std::uint64_t on_cpu = 0;
  std::uint64_t waiting = 0;
  return (sched >> on_cpu >> waiting) ? waiting / 1000 : 0;
}

std::uint64_t process_status_kib(int pid, const std::string& key) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(key + ":", 0) == 0) return std::stoull(line.substr(key.size() + 1));
  }
  return 0;
}

std::string add_record(const std::string& id, int input, int output) {
  return "*COMMAND=route output\n*TYPE=command\n*ID=" + id +
         "\nfrom input=" + std::to_string(input) +
         "\nqueue=add\nto output=" + std::to_string(output) + "\n\n";
}

std::string queue_record(const std::string& id, const std::string& queue) {
  return "*COMMAND=route output\n*TYPE=command\n*ID=" + id + "\nqueue=" + queue + "\n\n";
}

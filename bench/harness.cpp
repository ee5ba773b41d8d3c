#include "harness.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <sstream>

namespace {

constexpr int start_wait_ms = 10000;
constexpr int send_wait_ms = 10000;

// Splits newly read bytes into lines, all stamped with the time of the read.
void take_bytes(timed_stream& s, std::string& bytes, us_time_t now) {
  s.partial += bytes;
  bytes.clear();
  std::size_t start = 0;
  for (std::size_t nl; (nl = s.partial.find('\n', start)) != std::string::npos; start = nl + 1) {
    s.lines.push_back({now, s.partial.substr(start, nl - start)});
  }
  s.partial.erase(0, start);
}

// Stamps what the last pump read: the emulator's lines as they are, the
// backend's records and diagnostic lines as the client split them.
void take_output(bench_session& s) {
  const us_time_t now = monotonic_now_us();
  take_bytes(s.emulator_log, s.emulator.err_buf, now);
  take_bytes(s.emulator_log, s.emulator.out_buf, now);
  client_take_output(s.backend);
  for (client_diag& d : s.backend.diags) s.backend_log.lines.push_back({d.at, std::move(d.text)});
  s.backend.diags.clear();
  for (client_record& r : s.backend.records) s.records.push_back({r.at, std::move(r.text)});
  s.backend.records.clear();
}

std::string config_text(const bench_session& s) {
  return client_emulator_config(s.port);
}

}  // namespace

bool session_start_emulator(bench_session& s, const bench_paths& paths,
                            const std::vector<std::string>& extra) {
  std::vector<std::string> options{"--verbose", "--no-controls"};
  options.insert(options.end(), extra.begin(), extra.end());
  s.port = client_start_emulator(s.emulator, paths.emulator, options, start_wait_ms);
  take_output(s);
  return !s.port.empty();
}

bool session_start_backend(bench_session& s, const bench_paths& paths,
                           const std::vector<std::string>& wrapper) {
  const std::string cfg = s.dir.write("router.cfg", config_text(s));
  return client_start(s.backend, paths.backend, {"--file", cfg}, wrapper);
}

void session_pump(bench_session& s, int ms) {
  child_pump(ms);
  take_output(s);
}

void session_pump_until(bench_session& s, us_time_t deadline) {
  for (us_time_t now; (now = monotonic_now_us()) < deadline;) {
    session_pump(s, static_cast<int>((deadline - now + 999) / 1000));
  }
}

bool session_send(bench_session& s, const std::string& text) {
  // The backend takes its input a byte at a time: the pumps write the rest
  // as it makes room, and keep its output flowing meanwhile so that it never
  // stalls on a full pipe.
  client_send_text(s.backend, text);
  const us_time_t deadline = monotonic_now_us() + send_wait_ms * 1000ULL;
  const child_process& c = s.backend.child;
  while (c.in_fd >= 0 && !c.to_write.empty() && monotonic_now_us() < deadline) {
    session_pump(s, 10);
  }
  return c.in_fd >= 0 && c.to_write.empty();
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

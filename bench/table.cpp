#include "table.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdarg>
#include <fstream>

std::string strf(const char* fmt, ...) {
  char text[512];
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(text, sizeof text, fmt, ap);
  va_end(ap);
  return text;
}

void progress(const char* fmt, ...) {
  static const auto start = std::chrono::steady_clock::now();
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  std::fprintf(stderr, "bench [%5.1f s]: ", elapsed.count());
  va_list ap;
  va_start(ap, fmt);
  std::vfprintf(stderr, fmt, ap);
  va_end(ap);
  std::fputc('\n', stderr);
}

double percentile(std::vector<double> samples, double q) {
  if (samples.empty()) return 0;
  std::sort(samples.begin(), samples.end());
  // Nearest rank: the smallest sample with at least q of them at or below it.
  const auto rank = static_cast<std::size_t>(std::ceil(q * static_cast<double>(samples.size())));
  return samples[std::min(samples.size(), std::max<std::size_t>(rank, 1)) - 1];
}

const char* verdict(bool ok) { return ok ? "met" : "MISSED"; }

std::string machine_description() {
  std::string cpu = "unknown CPU";
  std::ifstream info("/proc/cpuinfo");
  for (std::string line; std::getline(info, line);) {
    if (line.rfind("model name", 0) == 0) {
      cpu = line.substr(line.find(':') + 2);
      break;
    }
  }
  utsname u{};
  const std::string kernel = uname(&u) == 0 ? std::string(u.sysname) + " " + u.release : "?";
  return strf("%ld cores (nproc), %s, %s, g++ %s", sysconf(_SC_NPROCESSORS_ONLN), cpu.c_str(),
              kernel.c_str(), __VERSION__);
}

void print_table(const std::vector<bench_row>& rows, std::FILE* out) {
  auto cell = [](const std::string& s) { return s.empty() ? std::string("-") : s; };
  std::fprintf(out, "| Measurement | Result | Floor | Ratio | Target | Verdict | Notes |\n");
  std::fprintf(out, "|---|---|---|---|---|---|---|\n");
  for (const bench_row& r : rows) {
    std::fprintf(out, "| %s | %s | %s | %s | %s | %s | %s |\n", r.what.c_str(),
                 cell(r.result).c_str(), cell(r.floor).c_str(), cell(r.ratio).c_str(),
                 cell(r.target).c_str(), cell(r.verdict).c_str(), cell(r.notes).c_str());
  }
}

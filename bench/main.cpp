// zeph_bench: micro-benchmarks of the backend's hot paths and end-to-end runs
// of the real binary against the switcher emulator, printed as one table.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "e2e.h"
#include "micro.h"
#include "table.h"

namespace {

constexpr const char* usage_text =
    "usage: zeph_bench [options] [--benchmark_... flags]\n"
    "  --backend PATH       the backend binary (%s)\n"
    "  --emulator PATH      the switcher emulator (%s)\n"
    "  --no-micro           skip the micro-benchmarks\n"
    "  --no-e2e             skip the end-to-end runs\n"
    "  --only PART          run one part: micro, sync, parent or syscalls\n"
    "  --idle-seconds N     rest measured for N s (30)\n"
    "  --changes N          route changes timed (200)\n"
    "  --records N          \"add\" records per throughput burst (2000)\n"
    "  --dump PREFIX        leave the logs of the runs in files named PREFIX...\n"
    "  --quick              fewer repeats and samples, a 5 s rest: a smoke run\n";

struct micro_label {
  const char* name;  // the function benchmarked
  const char* what;
  const char* unit;
  double scale;
};

const micro_label micro_labels[] = {
    {"encode_router_frame", "encode_router_frame: a \"TI\" command frame", "M frames/s", 1e-6},
    {"receive_bytes",
     "receive_bytes: names and status replies of a 256 x 256 switcher, diagnostics to /dev/null",
     "MB/s", 1e-6},
    {"parent_message_serialise", "parent_message_serialise: one \"add\" request (6 lines)",
     "M records/s", 1e-6},
    {"parent_message_parse_line", "parent_message_parse_line: the same record, line by line",
     "M records/s", 1e-6},
    {"pass_syscalls",
     "one main-loop pass's system calls alone: select, 2 one-byte pipe reads, 2 empty TCP reads",
     "k passes/s", 1e-3},
};

// Runs the micro-benchmarks into rows; returns the time of one pass's
// system calls in microseconds (0 when unknown).
double micro_rows(std::vector<bench_row>& rows) {
  progress("micro-benchmarks");
  std::vector<micro_result> results;
  run_micro_benchmarks(results);
  double pass_us = 0;
  for (const micro_result& r : results) {
    for (const micro_label& l : micro_labels) {
      if (r.name != l.name) continue;
      std::string result = strf("%.2f %s", r.rate * l.scale, l.unit);
      if (r.name == "pass_syscalls" && r.rate > 0) {
        pass_us = 1e6 / r.rate;
        result += strf(" (%.2f us a pass)", pass_us);
      }
      rows.push_back(
          {l.what, result, "", "", "", "", strf("cv %.1f %% over 5 repetitions", r.cv * 100)});
    }
  }
  return pass_us;
}

int parse_number(const char* text) {
  const int n = std::atoi(text);
  return n > 0 ? n : 1;
}

}  // namespace

int main(int argc, char** argv) {
  // Google Benchmark takes its own --benchmark_... flags out of argv.
  benchmark::Initialize(&argc, argv);
  bench_paths paths{ZEPH_BACKEND_PATH, ZEPH_EMULATOR_PATH};
  e2e_options opt;
  bool micro = true;
  bool e2e = true;
  std::string only;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    const bool has_value = i + 1 < argc;
    if (a == "--backend" && has_value)
      paths.backend = argv[++i];
    else if (a == "--emulator" && has_value)
      paths.emulator = argv[++i];
    else if (a == "--no-micro")
      micro = false;
    else if (a == "--no-e2e")
      e2e = false;
    else if (a == "--only" && has_value)
      only = argv[++i];
    else if (a == "--dump" && has_value)
      opt.dump_prefix = argv[++i];
    else if (a == "--idle-seconds" && has_value)
      opt.idle_seconds = parse_number(argv[++i]);
    else if (a == "--changes" && has_value)
      opt.changes = parse_number(argv[++i]);
    else if (a == "--records" && has_value)
      opt.burst_records = parse_number(argv[++i]);
    else if (a == "--quick") {
      opt.sync_repeats = 1;
      opt.idle_seconds = 5;
      opt.changes = 30;
      opt.burst_repeats = 1;
    } else {
      std::fprintf(stderr, usage_text, ZEPH_BACKEND_PATH, ZEPH_EMULATOR_PATH);
      return 1;
    }
  }
  auto wanted = [&only](const char* part, bool enabled) {
    return only.empty() ? enabled : only == part;
  };
  std::vector<bench_row> rows;
  const double pass_us = wanted("micro", micro) ? micro_rows(rows) : 0;
  if (wanted("sync", e2e)) run_sync_benchmarks(paths, opt, rows);
  if (wanted("parent", e2e)) run_parent_benchmarks(paths, opt, pass_us, rows);
  if (wanted("syscalls", e2e)) run_syscall_count(paths, opt, rows);
  progress("done");
  std::printf("Machine: %s\n\n", machine_description().c_str());
  print_table(rows, stdout);
  return 0;
}

#pragma once

// Micro-benchmarks of the backend's hot paths (Google Benchmark).

#include <string>
#include <vector>

struct micro_result {
  std::string name;  // the benchmarked function
  double rate = 0;   // median items or bytes per second
  double mean = 0;
  double stddev = 0;
  double cv = 0;           // coefficient of variation over the repetitions
  bool per_bytes = false;  // rate counts bytes, not items
};

// Runs the micro-benchmarks (those the --benchmark_filter flag selects);
// benchmark::Initialize must have run first. Names: encode_router_frame,
// receive_bytes, parent_message_serialise, parent_message_parse_line and
// pass_syscalls (the system calls of one main-loop pass, without the backend).
void run_micro_benchmarks(std::vector<micro_result>& results);

#pragma once

// End-to-end runs of the real backend against the switcher emulator on
// loopback. Each appends its rows to the table.

#include <string>
#include <vector>

#include "harness.h"
#include "table.h"

struct e2e_options {
  int sync_repeats = 3;      // synchronisations measured per switcher size
  int idle_seconds = 30;     // rest measured on the largest switcher
  int changes = 200;         // route changes timed from flush to "TI"
  int burst_records = 2000;  // "add" records per throughput burst
  int burst_repeats = 3;
  int traced_records = 200;  // "add" records sent under strace
  std::string dump_prefix;   // when set, sessions leave their logs there
};

// Synchronisation time for 16, 256 and 1024 destinations and sources, then
// CPU time at rest and peak memory of the 1024 one, and the CPU time at rest
// of a backend whose standard error is /dev/null.
void run_sync_benchmarks(const bench_paths& paths, const e2e_options& opt,
                         std::vector<bench_row>& rows);

// Route latency from "flush" to "TI", and "add" records per second. pass_us
// is the time of the system calls of one main-loop pass alone (0: unknown),
// from which the ceiling of the throughput follows.
void run_parent_benchmarks(const bench_paths& paths, const e2e_options& opt, double pass_us,
                           std::vector<bench_row>& rows);

// System calls per byte of parent input, counted with strace when it is
// installed; a row saying so otherwise.
void run_syscall_count(const bench_paths& paths, const e2e_options& opt,
                       std::vector<bench_row>& rows);

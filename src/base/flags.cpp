#include "base/flags.h"

#include <array>
#include <csignal>

namespace {

constexpr int flag_count = 6;
static_assert(static_cast<int>(process_flag::outputs_report_needed) == flag_count - 1);

// counts_changed and info_report_needed start raised, so the first pass
// computes the counts and sends an info report. The process starts from
// these values and the test reset returns to them: one list for both.
constexpr std::array<bool, flag_count> start_values = {false, false, true, true, false, false};
static_assert(static_cast<int>(process_flag::counts_changed) == 2);
static_assert(static_cast<int>(process_flag::info_report_needed) == 3);

std::array<bool, flag_count> flags = start_values;
// Written by the signal handler, read at the top of every main-loop pass.
volatile std::sig_atomic_t quit_flag = 0;

int index_of(process_flag f) { return static_cast<int>(f); }

}  // namespace

bool flag_is_set(process_flag f) { return flags[index_of(f)]; }
void raise_flag(process_flag f) { flags[index_of(f)] = true; }
void clear_flag(process_flag f) { flags[index_of(f)] = false; }

bool quit_is_requested() { return quit_flag != 0; }
void request_quit() { quit_flag = 1; }

void reset_process_flags() {
  flags = start_values;
  quit_flag = 0;
}

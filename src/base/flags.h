#pragma once

// Process flags through which the subsystems ask the main loop for work. Each
// is one byte; the main loop handles each at a fixed step of its pass.
enum class process_flag : unsigned char {
  reconnect_requested,    // "ip address" or "port" changed: close, then reconnect
  sync_needed,            // a connection came up: run the initial synchronisation
  counts_changed,         // recompute the active input and output counts
  info_report_needed,     // send the info report
  inputs_report_needed,   // send the inputs report
  outputs_report_needed,  // send the outputs report
};

[[nodiscard]] bool flag_is_set(process_flag f);
void raise_flag(process_flag f);
void clear_flag(process_flag f);

// The quit flag is set from the signal handler, so it lives apart from the
// others as a flag a handler may safely write.
[[nodiscard]] bool quit_is_requested();
void request_quit();

// Test hooks.
// Puts every flag back to its start-up value (counts_changed and
// info_report_needed raised, everything else clear).
void reset_process_flags();

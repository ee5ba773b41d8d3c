#include "app/main_loop.h"

#include <sys/select.h>

#include <cassert>

#include "base/config.h"
#include "base/flags.h"
#include "model/tables.h"
#include "parent/channel.h"
#include "router/connection.h"
#include "router/receive.h"
#include "service/dispatcher.h"
#include "service/reports.h"
#include "service/route_queue.h"
#include "sync/polling.h"
#include "sync/sync.h"

namespace {

constexpr long idle_wait_us = 250000;
constexpr long pacing_wait_us = 50000;

// Runs a report whose flag is set. The flag is cleared first, so a report
// that raises it again is sent again on the next pass.
void report_if_needed(process_flag f, void (*send)()) {
  if (!flag_is_set(f)) return;
  clear_flag(f);
  send();
}

// The work of one pass before the wait, in its fixed order.
void run_steps() {
  delayed_flush_step();
  if (flag_is_set(process_flag::reconnect_requested)) {
    connection_close();
    clear_flag(process_flag::reconnect_requested);
  }
  send_routing_report();
  connection_connect();
  connection_poll();
  status_polling_step();
  // The synchronisation may change the counts; recounting after it reports
  // them in the same pass.
  if (flag_is_set(process_flag::sync_needed)) {
    initial_sync();
    clear_flag(process_flag::sync_needed);
  }
  if (flag_is_set(process_flag::counts_changed)) {
    recompute_active_counts(router_input_count(), router_output_count());
    clear_flag(process_flag::counts_changed);
  }
  report_if_needed(process_flag::info_report_needed, send_info_report);
  report_if_needed(process_flag::inputs_report_needed, send_inputs_report);
  report_if_needed(process_flag::outputs_report_needed, send_outputs_report);
  // "report outputs" requests read inside a wait share one loop run here,
  // at the top, where it holds up no other wait.
  answer_deferred_status_requests();
}

// Waits for input from the switcher or the parent, or, while output to the
// parent holds its input back, for the parent to read. A signal or a failure
// of select is just an early wake-up: the next pass looks at everything anyway.
void wait_for_input(long wait_us) {
  fd_set readable;
  fd_set writable;
  FD_ZERO(&readable);
  FD_ZERO(&writable);
  int nfds = 0;
  const int sock = connection_socket();
  if (sock >= 0) {
    assert(sock < FD_SETSIZE);
    FD_SET(sock, &readable);
    nfds = sock + 1;
  }
  parent_add_read_fds(&readable, &nfds);
  parent_add_write_fds(&writable, &nfds);
  timeval timeout{0, wait_us};
  (void)select(nfds, &readable, &writable, nullptr, &timeout);
}

}  // namespace

long main_loop_wait_us(us_time_t now) {
  // Only paced route changes are worth a quicker wake-up, and only while
  // nothing else is in flight that select would not notice by itself.
  const bool only_pacing = !parent_output_pending() && !connection_connect_in_progress() &&
                           received_queue_empty() && !connection_tx_pending() &&
                           !receive_in_progress() && !send_queue_empty() && now < flush_allow();
  return only_pacing ? pacing_wait_us : idle_wait_us;
}

void run_main_loop() {
  while (!quit_is_requested()) {
    run_steps();
    wait_for_input(main_loop_wait_us(monotonic_now_us()));
    if (parent_pump() < 0) break;
    // The record stays valid until the next read step; the dispatcher takes
    // what it needs before it pumps the channel itself.
    if (const parent_message* request = parent_next()) handle_parent_message(*request);
  }
  connection_close();
}

#include "sync/polling.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/config.h"
#include "base/diag.h"
#include "base/flags.h"
#include "model/tables.h"
#include "router/connection.h"
#include "router/exchange.h"
#include "router/protocol.h"
#include "router/receive.h"
#include "service/route_status.h"

namespace {

us_time_t next_poll = 0;  // 0: no status request scheduled

constexpr us_time_t poll_interval_us = 350000;
constexpr us_time_t flags_deadline_us = 2000000;   // "BK" "F" and "QD"
constexpr us_time_t reread_deadline_us = 3000000;  // names re-reads and "BK" "f"

using table_update = void (*)(const std::vector<router_message>&);

// Re-reads one names table; a failed exchange still rebuilds the table from
// whatever part of the reply arrived.
void reread_names(const char* kind, table_update update) {
  std::vector<router_message> response;
  (void)query_step(response, "QN", {kind}, monotonic_now_us() + reread_deadline_us);
  update(response);
}

// Asks for the change flags, re-reads what they name and acknowledges them.
// A failed flags query ends the request: returns false.
bool query_change_flags() {
  std::vector<router_message> response;
  if (!request_reply(response, "BK", {"F"}, monotonic_now_us() + flags_deadline_us)) return false;
  // Only a single "KB" "F" answer is usable; anything else is ignored and
  // the changed destinations are still asked for.
  if (response.size() != 1 || !router_request_is(response[0], "KB") ||
      response[0].parameters.size() < 2 || response[0].parameters[0] != "F") {
    return true;
  }
  const std::uint64_t flags = std::strtoul(response[0].parameters[1].c_str(), nullptr, 16);
  if (flags & change_flag_source_names) reread_names("IS", update_sources_info);
  if (flags & change_flag_dest_names) reread_names("ID", update_dest_info);
  (void)request_reply(response, "BK", {"f", hex_parameter(flags & 0xFFFFFFFFu)},
                      monotonic_now_us() + reread_deadline_us);
  return true;
}

// Marks every destination whose name a "DQ" reply carries. Returns false when
// the reply held no "DQ" message at all.
bool mark_changed_outputs(const std::vector<router_message>& response,
                          std::vector<bool>& changed) {
  const std::vector<router_entry>& outputs = router_outputs_info();
  changed.assign(router_output_count(), false);
  bool found = false;
  for (const router_message& m : response) {
    if (!m.ok || !router_request_is(m, "DQ") || m.parameters.size() < 2) continue;
    found = true;
    for (std::size_t i = 0; i < outputs.size() && i < changed.size(); ++i) {
      if (outputs[i].name == m.parameters[0]) changed[i] = true;
    }
  }
  return found;
}

// Re-reads the route of every changed output under one budget.
void query_changed_routes(const std::vector<bool>& changed) {
  const us_time_t budget = monotonic_now_us() + route_status_budget_us();
  for (std::uint64_t i = 0;
       i < active_outputs() && i < router_output_count() && i < changed.size(); ++i) {
    if (changed[i]) query_output_route(i, budget);
  }
}

void reschedule() {
  // Two successive values of the unseeded generator, multiplied with 32-bit
  // wrap-around; the low 12 bits are the jitter.
  const auto r1 = static_cast<std::uint32_t>(std::rand());
  const auto r2 = static_cast<std::uint32_t>(std::rand());
  const std::uint32_t jitter = (r1 * r2) & 0xFFFu;
  next_poll = monotonic_now_us() + poll_interval_us + jitter;
}

// One periodic status request. Returns false when an exchange failed and the
// polling step must end at once, without rescheduling.
bool periodic_status_request() {
  diag("<DBG>Sending periodic status request as TCP keepalive and to keep up with unreported changes if they should occur\n");
  if (!query_change_flags()) return false;

  std::vector<router_message> response;
  if (!request_reply(response, "QD", {}, monotonic_now_us() + flags_deadline_us)) return false;
  std::vector<bool> changed;
  if (mark_changed_outputs(response, changed)) query_changed_routes(changed);
  reschedule();
  return true;
}

// Messages nobody asked for are taken off the queue; of a batch only the
// last one is logged.
void drain_unsolicited() {
  while (!received_queue_empty()) {
    router_message m = connection_recvmsg();
    if (received_queue_empty()) log_router_message(m);
  }
}

}  // namespace

void status_polling_step() {
  if (!connection_ready()) return;
  connection_poll();
  if (!connection_ready()) return;
  if (next_poll != 0 && monotonic_now_us() >= next_poll &&
      !flag_is_set(process_flag::sync_needed)) {
    if (!periodic_status_request()) return;
  }
  drain_unsolicited();
}

void set_next_status_poll(us_time_t t) { next_poll = t; }

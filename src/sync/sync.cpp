#include "sync/sync.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/config.h"
#include "base/diag.h"
#include "base/flags.h"
#include "model/tables.h"
#include "router/connection.h"
#include "router/exchange.h"
#include "service/reports.h"
#include "service/route_queue.h"
#include "service/route_status.h"
#include "sync/polling.h"

namespace {

constexpr us_time_t handshake_limit_us = 5000000;
constexpr us_time_t query_deadline_us = 3000000;
constexpr us_time_t first_poll_delay_us = 350000;

// A query step of the sequence with a deadline of its own. True when a
// complete reply arrived.
bool sync_query(std::vector<router_message>& response, const char* request,
                std::vector<std::string> parameters) {
  return query_step(response, request, std::move(parameters),
                    monotonic_now_us() + query_deadline_us);
}

// Sends a bare "BK" until the switcher answers with a message, resending every
// 100 ms ("handshake resend") for at most 5 s. On success the answer is in answer; on failure the
// connection has been closed.
bool handshake(router_message& answer) {
  const us_time_t limit = monotonic_now_us() + handshake_limit_us;
  for (;;) {
    serve_parent_once();
    connection_poll();
    if (monotonic_now_us() >= limit) {
      diag("<ERR>Timeout sending message\n");
      connection_close();
      return false;
    }
    answer = make_router_request("BK");
    if (!connection_sendmsg(answer)) {
      diag("<ERR>Unable to send message\n");
      connection_close();
      return false;
    }
    const us_time_t resend_at = std::min(monotonic_now_us() + handshake_resend_us(), limit);
    while (monotonic_now_us() < resend_at) {
      serve_parent_once();
      connection_poll();
      answer = connection_recvmsg();
      // A bare ACK has no body either: keep waiting for a real message.
      if (!answer.raw.empty()) return true;
    }
  }
}

// The text of an identity answer: a single good "KB" message repeating the
// query letter. Returns false, leaving text alone, for anything else.
bool identity_answer(const std::vector<router_message>& response, const char* letter,
                     std::string& text) {
  if (response.size() != 1) return false;
  const router_message& m = response[0];
  if (!m.ok || !router_request_is(m, "KB") || m.parameters.size() < 2 ||
      m.parameters[0] != letter) {
    return false;
  }
  text = m.parameters[1];
  return true;
}

// Model, revision and type. Returns false when an exchange failed.
bool learn_identity(std::vector<router_message>& response) {
  if (!sync_query(response, "BK", {"N"})) return false;
  std::string model;
  if (identity_answer(response, "N", model)) {
    set_device_model(model);
    if (!model.empty()) diag("<NOTE>Device is a \"%s\"\n", model.c_str());
  }

  // The revision and the type share one deadline.
  const us_time_t deadline = monotonic_now_us() + query_deadline_us;
  std::string revision;
  std::string type;
  if (!query_step(response, "BK", {"R"}, deadline)) return false;
  identity_answer(response, "R", revision);
  if (!query_step(response, "BK", {"T"}, deadline)) return false;
  identity_answer(response, "T", type);

  // "V5 [2.1]" when both are known, else whichever is.
  std::string firmware = type.empty() ? revision : type;
  if (!type.empty() && !revision.empty()) firmware += " [" + revision + "]";
  set_firmware_version(firmware);
  if (!firmware.empty()) diag("<NOTE>Firmware: %s\n", firmware.c_str());
  return true;
}

// The setup commands and the names queries. Returns false when the sequence
// must be abandoned.
bool setup_and_names(std::vector<router_message>& response) {
  if (!sync_query(response, "BK", {"I", "15"})) return false;
  if (!sync_query(response, "BK", {"E", "OFF"})) return false;
  if (!sync_query(response, "BK", {"D"})) return false;

  if (!query_step(response, "QN", {"L"}, monotonic_now_us() + query_deadline_us,
                  "<DBG>Asking for levels...\n")) {
    return false;
  }
  update_levels_info(response);

  connection_poll();
  drain_received_queue();
  // A failed sources or destinations query still rebuilds its table from
  // what arrived, and the sequence goes on.
  (void)sync_query(response, "QN", {"IS"});
  update_sources_info(response);
  (void)sync_query(response, "QN", {"ID"});
  update_dest_info(response);
  return true;
}

// Asks for the route of every active output under one budget.
void query_all_routes() {
  const us_time_t budget = monotonic_now_us() + route_status_budget_us();
  for (std::uint64_t i = 0; i < active_outputs(); ++i) query_output_route(i, budget);
}

void hand_over() {
  set_next_status_poll(monotonic_now_us() + first_poll_delay_us);
  if (flag_is_set(process_flag::counts_changed)) {
    recompute_active_counts(router_input_count(), router_output_count());
    clear_flag(process_flag::counts_changed);
  }
  // sync_needed is still raised here, so this sends nothing yet; it only
  // lets the delayed-flush step expire stale changes.
  delayed_flush_step();
  send_route_changes();
  clear_flag(process_flag::info_report_needed);
  send_info_report();
  query_all_routes();
  send_routing_report();
}

}  // namespace

void initial_sync() {
  connection_poll();
  drain_received_queue();
  if (!connection_ready()) {
    connection_close();
    return;
  }
  set_device_model("");
  set_firmware_version("");

  router_message answer;
  if (!handshake(answer)) return;
  if (answer.ok) {
    diag("<DBG>Router BK sync ack\n");
  } else {
    diag("<DBG>Router BK sync fail\n");
    diag("%s\n", describe_router_message(answer).c_str());
  }
  connection_poll();
  drain_received_queue();

  std::vector<router_message> response;
  if (!learn_identity(response)) return;
  if (!setup_and_names(response)) return;
  hand_over();
}

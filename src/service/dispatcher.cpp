#include "service/dispatcher.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "base/clock.h"
#include "base/config.h"
#include "base/flags.h"
#include "model/route_change.h"
#include "parent/channel.h"
#include "router/connection.h"
#include "service/route_queue.h"
#include "service/route_status.h"

// Every handler below copies what it needs from the request before it calls
// anything that may pump the parent channel: a nested pump clears the record
// the request refers to.

namespace {

// Waits serving the parent right now, one inside the other's dispatch.
int nested_waits = 0;
// The ids of "report outputs" requests read inside a wait, oldest first.
std::vector<std::string> deferred_ids;

parent_message make_reply(const std::string& command, const std::string& id) {
  parent_message reply;
  reply.command = command;
  reply.type = "reply";
  reply.id = id;
  return reply;
}

void send_error_reply(const parent_message& request, const std::string& error) {
  parent_message reply = make_reply(request.command, request.id);
  reply.error = error;
  parent_send(reply);
}

// A zero-based position from the parent: the decimal number at the start of
// text, cut to 32 bits; -1 when text does not start with a digit or the
// number is not below limit. A number that wraps negative stays negative.
std::int32_t parse_position(const std::string& text, std::uint64_t limit) {
  if (text.empty() || text[0] < '0' || text[0] > '9') return -1;
  const auto n = static_cast<std::int32_t>(std::strtol(text.c_str(), nullptr, 10));
  if (static_cast<std::int64_t>(n) >= static_cast<std::int64_t>(limit)) return -1;
  return n;
}

// "set": the configuration applies the key; never answered.
void apply_setting(const parent_message& request) {
  apply_config_key(parent_field(request, "name"), parent_field(request, "value"));
}

void handle_route_request(const parent_message& request) {
  const std::string queue = parent_field(request, "queue");
  const std::string& control = parent_field(request, "control");
  const std::int32_t input = parse_position(parent_field(request, "from input"), active_inputs());
  const std::int32_t output =
      parse_position(parent_field(request, "to output"), active_outputs());
  const parent_message reply = make_reply(request.command, request.id);

  if (output >= 0 && static_cast<std::uint64_t>(output) < active_outputs() && queue == "add") {
    // Only the control "all" (or none named) carries an input.
    route_change change;
    change.output = output;
    change.input = (control.empty() || control == "all") ? input : -1;
    add_route_change(change);
  }
  // From here on the request may be gone: the flush serves the parent while
  // it waits on the switcher.
  if (queue == "flush") {
    flush_route_changes();
  } else if (queue == "discard") {
    discard_route_changes();
  }
  parent_send(reply);
}

// Asks the switcher for the source of every active output, one at a time,
// serving the parent between the queries.
void run_output_status_loop() {
  const us_time_t deadline = monotonic_now_us() + route_status_budget_us();
  // The count is read again on every pass: a nested "set" may change it.
  for (std::uint64_t p = 0; p < active_outputs(); ++p) query_output_route(p, deadline);
}

bool output_status_loop_possible() {
  return connection_ready() && !flag_is_set(process_flag::sync_needed);
}

// Answers the "report outputs" requests in ids, oldest first, after one
// output status loop when the link allows one. Requests read during that
// loop wait for the next.
void answer_status_requests(const std::vector<std::string>& ids) {
  if (output_status_loop_possible()) run_output_status_loop();
  for (const std::string& id : ids) parent_send(make_reply("", id));
}

// The id is a copy: the loop below serves the parent, which clears the
// request it came from.
void handle_outputs_report_request(std::string id) {
  if (nested_waits > 0 && output_status_loop_possible()) {
    // A loop inside a wait would hold the wait, and the main loop with it,
    // for as long as it runs, and every such request would nest another.
    deferred_ids.push_back(std::move(id));
    return;
  }
  // At the top, requests that waited share this loop; with no loop
  // possible they are all answered at once, still in order.
  std::vector<std::string> ids = std::exchange(deferred_ids, {});
  ids.push_back(std::move(id));
  answer_status_requests(ids);
}

void handle_report_request(const parent_message& request) {
  const std::string& what = parent_field(request, "what");
  if (what == "inputs") {
    parent_send(make_reply("", request.id));
  } else if (what == "outputs") {
    handle_outputs_report_request(request.id);
  } else {
    parent_message reply = make_reply("report", request.id);
    reply.error = "I do not recognize what you are asking for";
    parent_send(reply);
  }
}

}  // namespace

void handle_parent_message(const parent_message& request) {
  if (request.type == "message") {
    if (request.command == "set") {
      apply_setting(request);
    } else {
      send_error_reply(request, "Message " + request.command + " ignored");
    }
  } else if (request.type == "command") {
    if (request.command == "route output") {
      handle_route_request(request);
    } else if (request.command == "report") {
      handle_report_request(request);
    } else {
      send_error_reply(request, "Unknown command " + request.command);
    }
  }
  // Any other type, empty included, is dropped without a reply.
}

void poll_parent_message() {
  static_cast<void>(parent_pump());
  if (const parent_message* request = parent_next()) handle_parent_message(*request);
}

void serve_parent_during_wait() {
  if (nested_waits >= max_nested_waits) {
    static_cast<void>(parent_write_pending());
    return;
  }
  ++nested_waits;
  poll_parent_message();
  --nested_waits;
}

void answer_deferred_status_requests() {
  if (deferred_ids.empty()) return;
  answer_status_requests(std::exchange(deferred_ids, {}));
}

std::size_t deferred_status_requests() { return deferred_ids.size(); }
int nested_wait_depth() { return nested_waits; }

void reset_dispatcher() {
  nested_waits = 0;
  deferred_ids.clear();
}

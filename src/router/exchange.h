#pragma once

#include <string>
#include <vector>

#include "base/clock.h"
#include "router/message.h"

// Putting messages on the wire and waiting for replies.

// Drains stale received messages, sends msg, then collects its reply (one
// message, or a run continued by the sequence flag) until deadline. Serves one
// parent message per 10 ms wait cycle. Returns true when response holds a
// complete reply; false when msg could not be sent or the deadline passed, in
// both cases after closing the connection.
[[nodiscard]] bool do_timeout_send_and_recv(router_message& msg,
                                            std::vector<router_message>& response,
                                            us_time_t deadline);

// Builds the command request with its parameters and exchanges it under
// deadline; the result of do_timeout_send_and_recv.
[[nodiscard]] bool request_reply(std::vector<router_message>& response, const char* request,
                                 std::vector<std::string> parameters, us_time_t deadline);

// One query step, as every caller that waits between queries makes it:
// serves one waiting parent message, polls the link, then request_reply().
// note, when given, is a diagnostic line written just before the exchange.
[[nodiscard]] bool query_step(std::vector<router_message>& response, const char* request,
                              std::vector<std::string> parameters, us_time_t deadline,
                              const char* note = nullptr);

// Discards every queued received message, polling the link and sleeping
// 10 ms after each one.
void drain_received_queue();

// What the waits call to serve one waiting parent message. The router link
// does not depend on the command service; the process installs the handler at
// start-up. With none installed, waits serve nothing.
using parent_poll_fn = void (*)();
void set_parent_poll_handler(parent_poll_fn fn);
// Calls the installed handler, if any.
void serve_parent_once();

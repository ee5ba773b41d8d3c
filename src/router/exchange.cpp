#include "router/exchange.h"

#include <unistd.h>

#include <cassert>
#include <cstring>
#include <utility>

#include "base/diag.h"
#include "router/connection.h"
#include "router/receive.h"

namespace {

// Every drain and wait step sleeps this long, so a waiting exchange polls
// instead of blocking and notices a reply within about this time.
constexpr useconds_t wait_step_us = 10000;

// Installed at start-up by the process; the router link itself knows nothing
// of the command service.
parent_poll_fn parent_poll_handler = nullptr;

// A successful "ER" that names "QD" answers the periodic status query. Arriving
// first while another command waits, it belongs to that query, not to us.
bool is_stale_status_ack(const router_message& sent, const router_message& got,
                         const std::vector<router_message>& response) {
  return response.empty() && got.ok && !router_request_is(sent, "QD") &&
         router_request_is(got, "ER") && got.parameters.size() >= 2 &&
         got.parameters[1] == "QD";
}

// A reply continues while its good messages carry a sequence flag other than
// '0' (or NUL) and keep the first message's command and protocol.
bool more_follow(const router_message& got, const std::vector<router_message>& response) {
  if (got.seq == '\0' || got.seq == '0') return false;
  if (!got.ok || got.ack || got.nak) return false;
  if (response.empty()) return true;
  const router_message& first = response.front();
  return std::strncmp(got.request, first.request, 2) == 0 && got.protocol == first.protocol;
}

}  // namespace

bool do_timeout_send_and_recv(router_message& msg, std::vector<router_message>& response,
                              us_time_t deadline) {
  response.clear();
  connection_poll();
  drain_received_queue();
  if (!connection_sendmsg(msg)) {
    diag("<ERR>Unable to send message\n");
    connection_close();
    return false;
  }
  // A connection lost meanwhile does not end the wait early: without a
  // socket nothing arrives, and the deadline ends it.
  for (;;) {
    if (monotonic_now_us() >= deadline) {
      diag("<ERR>Timeout receiving message\n");
      connection_close();
      return false;
    }
    // A parent request is handled to completion here, nested exchanges
    // included; what they take from the received queue is theirs.
    serve_parent_once();
    connection_poll();
    usleep(wait_step_us);
    router_message got = connection_recvmsg();
    // Nothing queued, or a bare ACK: neither is part of a reply.
    if (got.raw.empty()) continue;
    if (is_stale_status_ack(msg, got, response)) continue;
    const bool more = more_follow(got, response);
    response.push_back(std::move(got));
    if (!more) break;
  }
  assert(!response.empty() && response.size() > 0);
  return true;
}

bool request_reply(std::vector<router_message>& response, const char* request,
                   std::vector<std::string> parameters, us_time_t deadline) {
  router_message msg = make_router_request(request, std::move(parameters));
  return do_timeout_send_and_recv(msg, response, deadline);
}

bool query_step(std::vector<router_message>& response, const char* request,
                std::vector<std::string> parameters, us_time_t deadline, const char* note) {
  serve_parent_once();
  connection_poll();
  if (note != nullptr) diag("%s", note);
  return request_reply(response, request, std::move(parameters), deadline);
}

void drain_received_queue() {
  // Messages that arrive while draining are drained too.
  while (!received_queue_empty()) {
    received_queue_drop_front();
    connection_poll();
    usleep(wait_step_us);
  }
}

void set_parent_poll_handler(parent_poll_fn fn) { parent_poll_handler = fn; }

void serve_parent_once() {
  if (parent_poll_handler != nullptr) parent_poll_handler();
}

#include "service/switcher_peer.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstdio>

#include "frame/config.h"
#include "frame/flags.h"
#include "model/tables.h"
#include "router/connection.h"
#include "router/exchange.h"
#include "router/message.h"
#include "service/dispatcher.h"

namespace {

switcher_peer* current = nullptr;
bool serve_parent_too = false;

void step_then_serve() {
  if (current != nullptr) switcher_step(*current);
  if (serve_parent_too) poll_parent_message();
}

bool held(const switcher_peer& peer) {
  int n = 0;
  return peer.hold_while_readable >= 0 && ioctl(peer.hold_while_readable, FIONREAD, &n) == 0 &&
         n > 0;
}

std::string hex(unsigned n) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "%X", n);
  return buf;
}

}  // namespace

bool switcher_link_up(switcher_peer& peer, bool serve_parent) {
  peer.listener = listen_loopback();
  if (peer.listener.fd < 0) return false;
  apply_config_key("ip address", "127.0.0.1");
  apply_config_key("port", std::to_string(peer.listener.port));
  connection_set_next_connect_time_for_test(0);
  connection_connect();
  // Each check of a connect in progress waits at most 1 ms.
  for (int i = 0; i < 2000 && connection_connect_in_progress(); ++i) connection_connect();
  peer.fd = accept_within(peer.listener, 2000);
  if (!connection_is_open() || connection_connect_in_progress() || peer.fd < 0) return false;
  clear_flag(process_flag::sync_needed);
  clear_flag(process_flag::reconnect_requested);
  current = &peer;
  serve_parent_too = serve_parent;
  set_parent_poll_handler(step_then_serve);
  return true;
}

void switcher_step(switcher_peer& peer, int wait_ms) {
  if (peer.fd < 0) return;
  pollfd p{peer.fd, POLLIN, 0};
  if (poll(&p, 1, wait_ms) > 0) {
    char buf[4096];
    ssize_t n;
    while ((n = recv(peer.fd, buf, sizeof buf, MSG_DONTWAIT)) > 0) peer.pending.append(buf, n);
  }
  for (std::size_t end; (end = peer.pending.find(eot)) != std::string::npos;) {
    peer.frames.push_back(peer.pending.substr(0, end + 1));
    peer.pending.erase(0, end + 1);
  }
  if (held(peer)) return;
  while (peer.answered < static_cast<int>(peer.frames.size())) {
    const std::string& f = peer.frames[peer.answered++];
    router_message ack;
    ack.ack = true;
    router_message reply = make_router_request("ER", {"00", f.substr(3, 2)});
    router_frame a, r;
    if (encode_router_frame(ack, a) && encode_router_frame(reply, r)) {
      write_all(peer.fd, std::string(a.data()) + r.data());
    }
  }
}

void switcher_link_down(switcher_peer& peer) {
  set_parent_poll_handler(nullptr);
  current = nullptr;
  connection_reset_for_test();
  close_fd(peer.fd);
  close_fd(peer.listener.fd);
}

std::string frame_params(const std::string& frame) {
  // SOH, protocol, sequence flag, two letters; then TAB-led parameters, two
  // checksum digits and EOT.
  std::string out;
  for (std::size_t i = frame.find(tab); i != std::string::npos;) {
    const std::size_t next = frame.find(tab, i + 1);
    const std::size_t stop = next == std::string::npos ? frame.size() - 3 : next;
    out += (out.empty() ? "" : ",") + frame.substr(i + 1, stop - i - 1);
    i = next;
  }
  return out;
}

void load_switcher_tables(unsigned base, unsigned count) {
  router_message dests = make_router_request("NQ", {"ID", hex(count)});
  router_message srcs = make_router_request("NQ", {"IS", hex(count)});
  for (unsigned i = 0; i < count; ++i) {
    dests.parameters.insert(dests.parameters.end(), {"D" + std::to_string(i), hex(base + i), "x", "0"});
    srcs.parameters.insert(srcs.parameters.end(), {"S" + std::to_string(i), hex(base + i), "x", "0"});
  }
  dests.ok = srcs.ok = true;
  update_dest_info({dests});
  update_sources_info({srcs});
  recompute_active_counts();
}

#pragma once

#include <string>
#include <vector>

#include "support/tcp_peer.h"

// A switcher on a loopback socket for the command service tests. It runs on
// the test's own thread: the exchanges' parent-poll handler steps it, so a
// frame sent by an exchange is answered on the exchange's next wait cycle.
struct switcher_peer {
  tcp_listener listener;
  int fd = -1;              // the accepted connection
  std::string pending;      // received bytes not yet split into frames
  std::vector<std::string> frames;  // complete frames received, in order
  // While this descriptor has bytes to read, frames are received but not
  // answered: the switcher is slow until the parent's input has been read.
  int hold_while_readable = -1;
  int answered = 0;         // frames answered so far
};

// Configures the backend for the peer and brings the link up with
// sync_needed cleared. Installs a parent-poll handler that steps the peer
// and then, when serve_parent is set, serves one parent message.
[[nodiscard]] bool switcher_link_up(switcher_peer& peer, bool serve_parent);

// Reads what arrived (waiting up to wait_ms for the first byte), splits it
// into frames and answers every frame not yet answered with an "ER" message,
// unless held.
void switcher_step(switcher_peer& peer, int wait_ms = 0);

// Tears the link down and removes the handler.
void switcher_link_down(switcher_peer& peer);

// The parameters of a frame ("\x01N0TI\t5\tA5D\x04" gives "5,A").
[[nodiscard]] std::string frame_params(const std::string& frame);

// Loads destination and source tables of count entries numbered from base,
// and recomputes the active counts from them.
void load_switcher_tables(unsigned base, unsigned count);

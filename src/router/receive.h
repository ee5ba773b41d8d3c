#pragma once

#include <cstddef>

#include "router/message.h"

// The receive side of the switcher link, bytes in and messages out: a
// three-state machine splits what the switcher sends into ACKs, NAKs and
// checksummed messages; good messages wait in a FIFO. It knows no socket:
// the connection reads and feeds it.

// Feeds bytes to the byte machine. Returns how many messages they completed,
// queued or rejected, each a sign of life from the switcher.
std::size_t receive_bytes(const char* bytes, std::size_t n);

// Removes and returns the oldest queued message; a cleared record (empty raw)
// when nothing is queued.
[[nodiscard]] router_message receive_take_message();

[[nodiscard]] bool received_queue_empty();
// Removes and discards the oldest queued message, if any.
void received_queue_drop_front();
// A message is partly received (the incoming message's raw text is non-empty).
[[nodiscard]] bool receive_in_progress();

// Clears the incoming message and puts the byte machine back to idle; the
// received queue is kept. Called when the connection closes.
void receive_reset();

// Test hooks.
// Empties the received queue as well.
void receive_reset_for_test();

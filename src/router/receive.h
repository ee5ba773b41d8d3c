#pragma once

#include <cstddef>

#include "router/message.h"

// The receive side of the switcher link: bytes are split into ACKs, NAKs and
// checksummed messages by a three-state machine; good messages wait in a FIFO.

// One non-blocking read of at most 4096 bytes from the switcher socket, every
// byte fed to the byte machine. End of stream and read failures close the
// connection. Does nothing when no socket is open.
void connection_read();

// Feeds bytes to the byte machine, exactly as if they had been read.
void receive_bytes(const char* bytes, std::size_t n);

// Reads, then removes and returns the oldest queued message; a cleared record
// (empty raw) when nothing is queued.
[[nodiscard]] router_message connection_recvmsg();

[[nodiscard]] bool received_queue_empty();
// Removes and discards the oldest queued message, if any.
void received_queue_drop_front();
// A message is partly received (the incoming message's raw text is non-empty).
[[nodiscard]] bool receive_in_progress();

// Clears the incoming message and puts the byte machine back to idle; the
// received queue is kept. Called when the connection closes.
void receive_reset();

// Empties the received queue as well. For tests.
void receive_reset_for_test();

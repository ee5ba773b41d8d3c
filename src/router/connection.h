#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "base/clock.h"
#include "router/message.h"

// The one TCP connection to the switcher: non-blocking connect retried every
// 5 s, a transmit buffer flushed one write at a time, a 20 s watchdog.

// The connection step: starts an attempt when one is due and an address is
// configured, or checks a connect in progress (waiting at most 1 ms).
void connection_connect();

// The router link step: finishes a connect in progress, reads and parses what
// arrived, writes pending transmit bytes, runs the watchdog.
void connection_poll();

// Closes the socket and resets the link and receive state; clears sync_needed.
// Does nothing when no socket is open. Keeps the received queue,
// connect_in_progress and both timers.
void connection_close();

// One non-blocking read of at most 4096 bytes from the switcher socket, every
// byte fed to the receive parser; a message completed marks the link alive.
// End of stream and read failures close the connection. Does nothing when no
// socket is open.
void connection_read();

// Reads, then removes and returns the oldest received message; a cleared
// record (empty raw) when nothing is queued.
[[nodiscard]] router_message connection_recvmsg();

// Frames msg and queues it behind earlier frames, then makes one write.
// Returns false, queuing nothing, when no socket is open, a connect is in
// progress or the message does not fit a frame.
[[nodiscard]] bool connection_sendmsg(router_message& msg);

// Appends frame bytes to the transmit buffer and makes one write of
// everything unwritten. A broken connection is logged and closed. Does
// nothing when no socket is open.
void connection_queue_and_write(const char* bytes, std::size_t n);

// State queries.
[[nodiscard]] bool connection_is_open();
[[nodiscard]] int connection_socket();  // -1 when none is open
// A connect was started and its outcome is not known yet. Stays set across a
// close until the next attempt starts.
[[nodiscard]] bool connection_connect_in_progress();
// The transmit buffer holds bytes (written or not) it has not released yet.
[[nodiscard]] bool connection_tx_pending();
// A socket is open and connected: exchanges can start.
[[nodiscard]] bool connection_ready();

// Test hooks: the watchdog's and the retry timer's reference times, the
// connect-in-progress flag (loopback connects complete too fast to catch in
// progress), an address and port used instead of the configured ones, and a
// return of the whole link state to its start-up shape (closing any socket,
// dropping the target override).
void connection_set_last_activity_for_test(us_time_t t);
void connection_set_connect_in_progress_for_test(bool in_progress);
void connection_set_next_connect_time_for_test(us_time_t t);
[[nodiscard]] us_time_t connection_next_connect_time_for_test();
void connection_set_target_for_test(const std::string& address, std::int32_t port);
void connection_reset_for_test();

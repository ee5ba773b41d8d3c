#pragma once

#include <deque>

#include "base/clock.h"
#include "model/route_change.h"

// Route changes from the parent: added to a queue, moved to the send queue by
// a flush, and sent as one "TI" command per output, each batch pacing the
// next by 66 ms per command (750 ms at most). For every output the last "TI"
// sent carries the newest change flushed for it, even when a flush served
// while a batch waits on the switcher runs a batch of its own.

void add_route_change(const route_change& change);
// Empties the added changes; the send queue is kept.
void discard_route_changes();
// Moves every added change to the send queue, then send_route_changes().
void flush_route_changes();
// Sends the send queue when the link, the synchronisation and the pacing
// allow; otherwise leaves it for the delayed-flush step.
void send_route_changes();
// The main loop's step: sanity checks on the timers, the queue timeout, and
// sending changes whose pacing time has come.
void delayed_flush_step();

[[nodiscard]] bool send_queue_empty();
[[nodiscard]] us_time_t flush_allow();

// Test hooks: the changes added and not yet flushed or discarded (oldest
// first), the pacing timers, and a return of everything to start-up.
[[nodiscard]] const std::deque<route_change>& queued_route_changes();
[[nodiscard]] us_time_t queue_timeout();
void set_flush_allow_for_test(us_time_t t);
void set_queue_timeout_for_test(us_time_t t);
void reset_route_queues();

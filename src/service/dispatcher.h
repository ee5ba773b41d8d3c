#pragma once

#include <cstddef>

#include "parent/message.h"

// Handles one complete parent message and sends at most one reply. Re-entered
// from every wait that serves the parent; takes what it needs from request
// before anything can pump the parent channel.
void handle_parent_message(const parent_message& request);

// One parent_pump(), one parent_next(), and handle_parent_message() if a
// complete message came out.
void poll_parent_message();

// Waits that may serve the parent one inside the other's dispatch, at most.
// Three are all that must nest: a flush served while a main-loop step waits
// (1) runs a batch, a flush served while that batch waits (2) runs a batch
// of its own, and a request is served while that one waits (3). The fourth
// is spare; each costs about 1.4 KiB of stack (2.6 KiB with sanitizers).
constexpr int max_nested_waits = 4;

// What every wait calls to serve the parent: poll_parent_message(), counted
// as one level of nesting. At max_nested_waits levels it only writes what is
// queued for the parent; the parent's bytes stay in the pipe for later.
void serve_parent_during_wait();

// The main loop's step for "report outputs" requests read inside a wait:
// none of them starts an output status loop there. This runs one loop for
// all of them, then answers each, oldest first.
void answer_deferred_status_requests();

// Test hooks: how many requests wait for that step, how many waits serve the
// parent one inside the other right now, and a return to start-up.
[[nodiscard]] std::size_t deferred_status_requests();
[[nodiscard]] int nested_wait_depth();
void reset_dispatcher();

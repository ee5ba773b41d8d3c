#pragma once

#include <sys/select.h>

#include <cstddef>

#include "parent/message.h"

// The parent channel: records arrive on descriptor 0 one byte per read step and
// leave on descriptor 1 through an output buffer. Nothing here ever blocks.
// The buffer is bounded by flow control: while the parent leaves too much
// unread, the channel reads nothing from it, and reports it has not begun to
// write give way to newer ones of their kind.

// Unwritten output at which reading stops until the parent has read it down.
constexpr std::size_t parent_output_high_water = std::size_t{1} << 20;

// What a record sent to the parent is, for the output buffer. A reply is
// written as sent. A report still wholly unwritten when a newer one of its
// kind is sent is taken out, and the newer one goes to the end: a names or
// info report is replaced, a routing report takes the older one's routes
// under its own, so each output keeps its newest route.
enum class parent_output_kind : unsigned char {
  reply,
  outputs_names,
  inputs_names,
  info,
  routing,
};

// Checks descriptors 0, 1 and 2 (pipe, character device or socket), makes 0
// and 1 non-blocking and standard error unbuffered. Returns 0 or -1.
[[nodiscard]] int parent_channel_prepare();

// One read step, then one write step. Returns 0, or -1 when the channel ended
// or failed.
int parent_pump();

// One write step alone, for a wait that may not read. Returns 0, or -1 when
// the output failed.
int parent_write_pending();

// One read step; then, if the incoming record is complete, hands it out. The
// record stays valid only until the next read step by any caller: copy what
// you need before anything can pump the channel. Returns nullptr when no
// complete record is waiting.
[[nodiscard]] const parent_message* parent_next();

// Queues the text form of msg, as kind says, and makes one write attempt.
void parent_send(const parent_message& msg, parent_output_kind kind = parent_output_kind::reply);

// True while queued output has not all been written.
[[nodiscard]] bool parent_output_pending();

// True while unwritten output at or above the high-water mark holds reading back.
[[nodiscard]] bool parent_input_held();

// Adds descriptors 0, 1 and 2 to set and raises *nfds to at least 3; while
// input is held, descriptor 0 is left out, so waiting input does not wake
// the loop.
void parent_add_read_fds(fd_set* set, int* nfds);

// While input is held, adds descriptor 1, so the loop wakes when the parent
// has read; otherwise adds nothing.
void parent_add_write_fds(fd_set* set, int* nfds);

// Test hooks.
// Points the channel at other descriptors and resets its state: tests cannot
// hand over the test runner's own standard input and output.
void parent_channel_use_fds_for_test(int in_fd, int out_fd);

#pragma once

#include <sys/select.h>

#include "parent/message.h"

// The parent channel: records arrive on descriptor 0 one byte per read step and
// leave on descriptor 1 through an output buffer. Nothing here ever blocks.

// Checks descriptors 0, 1 and 2 (pipe, character device or socket), makes 0
// and 1 non-blocking and standard error unbuffered. Returns 0 or -1.
[[nodiscard]] int parent_channel_prepare();

// One read step, then one write step. Returns 0, or -1 when the channel ended
// or failed.
int parent_pump();

// One read step; then, if the incoming record is complete, hands it out. The
// record stays valid only until the next read step by any caller: copy what
// you need before anything can pump the channel. Returns nullptr when no
// complete record is waiting.
[[nodiscard]] const parent_message* parent_next();

// Queues the text form of msg and makes one write attempt.
void parent_send(const parent_message& msg);

// True while queued output has not all been written.
[[nodiscard]] bool parent_output_pending();

// Adds descriptors 0, 1 and 2 to set and raises *nfds to at least 3.
void parent_add_read_fds(fd_set* set, int* nfds);

// Test hooks.
// Points the channel at other descriptors and resets its state: tests cannot
// hand over the test runner's own standard input and output.
void parent_channel_use_fds_for_test(int in_fd, int out_fd);

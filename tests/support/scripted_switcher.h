#pragma once

// What the unit tests above the parent channel share: the modules returned to
// their start-up shape, the parent channel on pipes, and the switcher's side
// of the link played on the test's own thread from the waits' parent-poll
// handler, so a test steps both ends of every exchange.
#include <gtest/gtest.h>

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "support/tcp_peer.h"

using strings = std::vector<std::string>;

// Every frame received is noted in heard as its letters and parameters joined
// by blanks ("TI 5 A"), then answered with answers[] for it, else (with
// answer_rest) "ER 00 <letters>". At step n, replies[n - 1] is written first,
// whatever arrived.
struct scripted_switcher {
  tcp_listener listener;
  int fd = -1;
  std::string raw;         // every byte received on this connection
  std::size_t parsed = 0;  // bytes of raw already split into frames
  strings heard;
  std::map<std::string, std::string> answers;
  bool answer_rest = true;
  strings replies;
  std::size_t steps = 0;
  std::string silent_on;      // left unanswered
  std::string close_after;    // answered; the backend's link is closed at the next step
  std::string hang_up_after;  // answered; then the switcher hangs up
  bool close_now = false;
  int hold_fd = -1;  // frames wait unread while this descriptor has bytes to read
  bool one_frame_per_step = false;  // answer the oldest unanswered frame only
};
extern scripted_switcher sw;

// A new connection in place of any open one, accepted by sw; returns what
// connecting wrote to standard error. sync_needed is raised.
std::string switcher_link_up();
// One step of the switcher, as described above.
void switcher_step();

// SOH, body, checksum, EOT; the checksum computed here on its own so that a
// wrong rule in the code cannot agree with itself.
std::string framed(const std::string& body);

template <typename Fn>
std::string stderr_of(Fn f) {
  testing::internal::CaptureStderr();
  f();
  return testing::internal::GetCapturedStderr();
}

// The parent channel on two non-blocking pipes: a test writes requests into
// in[1] and reads the backend's output from out[0].
struct parent_pipes {
  int in[2] = {-1, -1};
  int out[2] = {-1, -1};
};
// Everything the channel wrote and the test has not read yet.
std::string parent_pipes_output(const parent_pipes& p);

// A fixture with every module back to its start-up shape, a fresh sw
// listening on an ephemeral port of 127.0.0.1, which the link targets,
// switcher_step as the parent-poll handler and the parent channel on pipes.
// Tearing down removes the handler, closes the link and every descriptor,
// and gives the channel standard input and output back.
class SwitcherTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  parent_pipes parent_;
};

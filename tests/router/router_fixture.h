#pragma once

// Helpers shared by the router link tests: standard error captured around a
// call, frames built by hand, and a loopback switcher the link connects to.

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <functional>
#include <string>

#include "frame/clock.h"
#include "frame/flags.h"
#include "router/connection.h"
#include "router/receive.h"
#include "support/tcp_peer.h"

// Runs f with descriptor 2 pointed at a temporary file; returns what was written.
inline std::string capture_stderr(const std::function<void()>& f) {
  std::fflush(stderr);
  const int saved = dup(2);
  std::FILE* tmp = std::tmpfile();
  dup2(fileno(tmp), 2);
  f();
  std::fflush(stderr);
  dup2(saved, 2);
  close(saved);
  std::string text;
  std::rewind(tmp);
  char buf[4096];
  for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, tmp)) > 0;) text.append(buf, n);
  std::fclose(tmp);
  return text;
}

// SOH, body, its checksum in upper-case hexadecimal, EOT; computed here on its
// own so that a wrong checksum rule in the code cannot agree with itself.
inline std::string framed(const std::string& body) {
  unsigned sum = 0;
  for (unsigned char c : body) sum += c;
  char digits[3];
  std::snprintf(digits, sizeof digits, "%02X", (256 - sum % 256) % 256);
  return "\x01" + body + digits + "\x04";
}

// The link, the parser and the flags in their start-up shape, and a listener
// on 127.0.0.1 as the switcher.
class RouterLinkTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // A write to a peer that reset would end the test run.
    std::signal(SIGPIPE, SIG_IGN);
    quietly_reset();
    listener_ = listen_loopback();
    ASSERT_GE(listener_.fd, 0);
    connection_set_target_for_test("127.0.0.1", listener_.port);
  }
  void TearDown() override {
    close_fd(peer_);
    close_fd(listener_.fd);
    quietly_reset();
  }

  static void quietly_reset() {
    capture_stderr([] { connection_reset_for_test(); });
    receive_reset_for_test();
    reset_process_flags();
  }

  // Runs connection steps until the link is up, then accepts the peer side.
  void Connect() {
    const us_time_t give_up = monotonic_now_us() + 5000000;
    capture_stderr([&] {
      do {
        connection_connect();
      } while ((!connection_is_open() || connection_connect_in_progress()) &&
               monotonic_now_us() < give_up);
    });
    ASSERT_TRUE(connection_is_open());
    ASSERT_FALSE(connection_connect_in_progress());
    peer_ = accept_within(listener_, 2000);
    ASSERT_GE(peer_, 0);
  }

  // Polls the link until pred holds or two seconds pass.
  static bool PollUntil(const std::function<bool()>& pred) {
    const us_time_t give_up = monotonic_now_us() + 2000000;
    while (!pred() && monotonic_now_us() < give_up) {
      connection_poll();
      usleep(1000);
    }
    return pred();
  }

  tcp_listener listener_;
  int peer_ = -1;
};

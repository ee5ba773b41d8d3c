#include "app/main_loop.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "base/flags.h"
#include "parent/channel.h"
#include "router/connection.h"
#include "router/receive.h"
#include "service/route_queue.h"
#include "support/scripted_switcher.h"

namespace {

constexpr long idle_us = 250'000;
constexpr long pacing_us = 50'000;
constexpr us_time_t now = 1'000'000'000;

class MainLoopWaitTest : public SwitcherTest {};

// Flushed changes that no link takes: they stay in the send queue.
void FlushedChanges() {
  add_route_change(route_change{1, 0});
  flush_route_changes();
  ASSERT_FALSE(send_queue_empty());
}

TEST_F(MainLoopWaitTest, ShortWaitOnlyWhilePacedChangesAreAllThatIsPending) {
  const auto paced = [] { FlushedChanges(); set_flush_allow_for_test(now + 1); };
  // Fills the parent pipe, then queues a record that cannot be written.
  const auto parent_output_blocked = [this] {
    while (write(parent_.out[1], "0123456789abcdef", 16) > 0) {
    }
    parent_send(parent_message{});
    ASSERT_TRUE(parent_output_pending());
  };
  // Connects to a switcher that never accepts and queues more than the
  // loopback buffers hold, so bytes stay in the transmit buffer.
  const auto switcher_output_blocked = [] {
    for (int i = 0; i < 2000 && !connection_ready(); ++i) connection_connect();
    const std::string bytes(64 << 20, 'x');
    connection_queue_and_write(bytes.data(), bytes.size());
    ASSERT_TRUE(connection_tx_pending());
  };
  struct Case {
    const char* name;
    std::function<void()> arrange;
    long wait_us;
  };
  const Case cases[] = {
      {"nothing pending", [] {}, idle_us},
      {"flushed changes wait for their pacing time", paced, pacing_us},
      // Every other case waits the long way.
      {"pacing time reached", [] { FlushedChanges(); set_flush_allow_for_test(now); }, idle_us},
      {"pacing time passed", [] { FlushedChanges(); set_flush_allow_for_test(now - 1); }, idle_us},
      {"pacing time ahead, nothing flushed", [] { set_flush_allow_for_test(now + 1); }, idle_us},
      {"changes added but not flushed",
       [] { add_route_change(route_change{1, 0}); set_flush_allow_for_test(now + 1); }, idle_us},
      {"a received message waits", [&] { paced(); receive_bytes("\x06", 1); }, idle_us},
      {"a message is partly received", [&] { paced(); receive_bytes("\x01N0", 3); }, idle_us},
      {"parent output waits", [&] { paced(); parent_output_blocked(); }, idle_us},
      {"switcher output waits", [&] { paced(); switcher_output_blocked(); }, idle_us},
      {"a connect awaits its outcome",
       [&] { paced(); connection_set_connect_in_progress_for_test(true); }, idle_us},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TearDown();
    SetUp();
    (void)stderr_of(c.arrange);  // the diagnostics of arranging are not the point
    EXPECT_EQ(c.wait_us, main_loop_wait_us(now));
  }
}

}  // namespace

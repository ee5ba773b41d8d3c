#include "service/route_queue.h"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "frame/config.h"
#include "frame/flags.h"
#include "model/tables.h"
#include "parent/channel.h"
#include "router/connection.h"
#include "router/receive.h"
#include "service/switcher_peer.h"

namespace {

class RouteQueueTest : public ::testing::Test {
 protected:
  void SetUp() override {
    reset_configuration();
    reset_process_flags();
    reset_router_tables();
    reset_route_queues();
    connection_reset_for_test();
    receive_reset_for_test();
    // The exchanges may touch the parent channel: keep it off the runner's
    // own descriptors.
    ASSERT_EQ(0, pipe2(parent_in, O_NONBLOCK));
    ASSERT_EQ(0, pipe2(parent_out, O_NONBLOCK));
    parent_channel_use_fds_for_test(parent_in[0], parent_out[1]);
    ASSERT_TRUE(switcher_link_up(peer, false));
    load_switcher_tables(1, 16);
  }

  void TearDown() override {
    switcher_link_down(peer);
    reset_route_queues();
    for (int fd : {parent_in[0], parent_in[1], parent_out[0], parent_out[1]}) close(fd);
  }

  // Adds the changes, flushes them, and returns the parameters of the
  // frames the switcher received meanwhile.
  std::vector<std::string> flush(const std::vector<route_change>& changes) {
    const std::size_t before = peer.frames.size();
    for (const route_change& c : changes) add_route_change(c);
    flush_route_changes();
    switcher_step(peer, 20);
    std::vector<std::string> out;
    for (std::size_t i = before; i < peer.frames.size(); ++i) {
      out.push_back(frame_params(peer.frames[i]));
    }
    return out;
  }

  switcher_peer peer;
  int parent_in[2] = {-1, -1};
  int parent_out[2] = {-1, -1};
};

using params = std::vector<std::string>;

TEST_F(RouteQueueTest, OneTakeInputPerOutputInAscendingOrder) {
  struct Case {
    const char* name;
    std::vector<route_change> changes;  // input, output
    params sent;
  };
  const Case cases[] = {
      {"both bases added", {{9, 4}}, {"5,A"}},
      {"last change per output wins", {{9, 4}, {2, 4}}, {"5,3"}},
      {"ascending output order", {{1, 7}, {1, 2}, {1, 5}}, {"3,2", "6,2", "8,2"}},
      {"no input is one below the input base", {{-1, 0}}, {"1,0"}},
      // Error paths follow
      {"output beyond the active outputs", {{1, 16}, {1, -1}}, {}},
      {"input below -1", {{-2, 3}}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    set_flush_allow_for_test(0);
    EXPECT_EQ(c.sent, flush(c.changes));
    EXPECT_TRUE(send_queue_empty());
    EXPECT_TRUE(queued_route_changes().empty());
  }
}

TEST_F(RouteQueueTest, FrameBytesAndZeroBase) {
  flush({{9, 4}});
  ASSERT_EQ(1u, peer.frames.size());
  EXPECT_EQ(std::string("\x01\x4E\x30\x54\x49\x09\x35\x09\x41\x35\x44\x04"), peer.frames[0]);

  load_switcher_tables(0, 16);
  set_flush_allow_for_test(0);
  EXPECT_EQ(params{"0,FFFFFFFF"}, flush({{-1, 0}}));
}

TEST_F(RouteQueueTest, PacingCountsFromTheBatchStart) {
  struct Case {
    const char* name;
    unsigned outputs;
    us_time_t hold_us;
  };
  const Case cases[] = {
      {"three commands", 3, 3 * 66'000},
      {"twenty commands stop at the cap", 20, 750'000},
      {"nothing sent", 0, 0},
  };
  load_switcher_tables(1, 20);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    set_flush_allow_for_test(0);
    std::vector<route_change> changes;
    for (unsigned i = 0; i < c.outputs; ++i) changes.push_back({1, static_cast<int>(i)});
    if (c.outputs == 0) changes.push_back({1, 20});
    const us_time_t before = monotonic_now_us();
    EXPECT_EQ(c.outputs, flush(changes).size());
    const us_time_t after = monotonic_now_us();
    EXPECT_LE(before + c.hold_us, flush_allow());
    EXPECT_GE(after + c.hold_us, flush_allow());
    EXPECT_LE(before + 5'000'000, queue_timeout());
    EXPECT_GE(after + 5'000'000, queue_timeout());
  }
}

TEST_F(RouteQueueTest, TooSoonThenDelayedSend) {
  set_flush_allow_for_test(monotonic_now_us() + 900'000);
  testing::internal::CaptureStderr();
  EXPECT_EQ(params{}, flush({{9, 4}}));
  EXPECT_EQ("<DBG>Route changes too soon, will flush later\n",
            testing::internal::GetCapturedStderr());
  EXPECT_FALSE(send_queue_empty());

  // The delayed-flush step waits for the pacing time, then sends.
  delayed_flush_step();
  EXPECT_FALSE(send_queue_empty());
  set_flush_allow_for_test(monotonic_now_us());
  testing::internal::CaptureStderr();
  delayed_flush_step();
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_EQ(0u, log.find("<DBG>Now sending delayed route changes\n")) << log;
  switcher_step(peer, 20);
  ASSERT_EQ(1u, peer.frames.size());
  EXPECT_EQ("5,A", frame_params(peer.frames[0]));
  EXPECT_TRUE(send_queue_empty());
}

TEST_F(RouteQueueTest, HeldBackWhileTheLinkIsNotReady) {
  raise_flag(process_flag::sync_needed);
  testing::internal::CaptureStderr();
  EXPECT_EQ(params{}, flush({{9, 4}}));
  EXPECT_EQ("", testing::internal::GetCapturedStderr());
  EXPECT_FALSE(send_queue_empty());
  EXPECT_EQ(0u, flush_allow());

  // With flush_allow never set there is no delayed send; the next flush
  // sends what waited, its own change for the same output last.
  clear_flag(process_flag::sync_needed);
  delayed_flush_step();
  EXPECT_EQ(params{"5,3"}, flush({{2, 4}}));

  connection_reset_for_test();
  set_flush_allow_for_test(0);
  EXPECT_EQ(params{}, flush({{9, 4}}));
  EXPECT_FALSE(send_queue_empty());
}

TEST_F(RouteQueueTest, QueueTimeoutDropsEverythingWaiting) {
  raise_flag(process_flag::sync_needed);
  static_cast<void>(flush({{1, 1}}));
  add_route_change({2, 2});
  discard_route_changes();  // the send queue is kept
  EXPECT_FALSE(send_queue_empty());
  add_route_change({3, 3});

  set_queue_timeout_for_test(monotonic_now_us() + 4'000'000);
  delayed_flush_step();
  EXPECT_FALSE(send_queue_empty());
  EXPECT_EQ(1u, queued_route_changes().size());

  set_queue_timeout_for_test(monotonic_now_us() - 1);
  testing::internal::CaptureStderr();
  delayed_flush_step();
  EXPECT_EQ("", testing::internal::GetCapturedStderr());
  EXPECT_TRUE(send_queue_empty());
  EXPECT_TRUE(queued_route_changes().empty());
  EXPECT_EQ(0u, queue_timeout());
}

TEST_F(RouteQueueTest, TimersFarAheadAreCleared) {
  set_queue_timeout_for_test(monotonic_now_us() + 10'500'000);
  set_flush_allow_for_test(monotonic_now_us() + 1'500'000);
  testing::internal::CaptureStderr();
  delayed_flush_step();
  EXPECT_EQ(
      "<WARN>Queue timeout too far into the future\n"
      "<WARN>Flush allow too far into the future\n",
      testing::internal::GetCapturedStderr());
  EXPECT_EQ(0u, queue_timeout());
  EXPECT_EQ(0u, flush_allow());
}

}  // namespace

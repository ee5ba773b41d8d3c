#include "router/connection.h"

#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <string>

#include "router/exchange.h"
#include "router/router_fixture.h"

namespace {

constexpr us_time_t twenty_one_s = 21000000;

using ConnectionTest = RouterLinkTest;

TEST_F(ConnectionTest, NoAttemptWithoutUsableAddress) {
  connection_set_target_for_test("", 0);
  EXPECT_EQ("", capture_stderr([] { connection_connect(); }));
  EXPECT_FALSE(connection_is_open());
  EXPECT_EQ(0u, connection_next_connect_time_for_test());

  connection_set_target_for_test("localhost", 0);
  EXPECT_EQ("<ERR>Cannot connect, cannot parse IP address\n",
            capture_stderr([] { connection_connect(); }));
  EXPECT_EQ("", capture_stderr([] { connection_connect(); }));  // not before 5 s
  EXPECT_FALSE(connection_is_open());
}

TEST_F(ConnectionTest, RefusedConnectIsRetriedEveryFiveSeconds) {
  connection_set_target_for_test("127.0.0.1", unused_loopback_port());
  // The refusal shows in connect itself, in the completion check or in the
  // first read, depending on when it arrives; each closes the link.
  const std::string lines = capture_stderr([] {
    connection_connect();
    PollUntil([] { return !connection_is_open(); });
  });
  EXPECT_NE(std::string::npos, lines.find("Connection refused\n<NOTE>Connection to router closed\n"))
      << lines;
  EXPECT_FALSE(connection_is_open());
  EXPECT_FALSE(flag_is_set(process_flag::sync_needed));
  EXPECT_EQ(connection_last_activity_for_test() + 5000000, connection_next_connect_time_for_test());

  EXPECT_EQ("", capture_stderr([] { connection_connect(); }));
  connection_set_next_connect_time_for_test(monotonic_now_us());
  EXPECT_NE("", capture_stderr([] { connection_connect(); }));
}

TEST_F(ConnectionTest, HangingConnectTimesOutThenCompletesLater) {
  // A listener whose one-slot accept queue is taken drops our SYN, so the
  // connect stays in progress until a slot frees and the SYN is sent again.
  tcp_listener narrow = listen_loopback();
  ASSERT_EQ(0, listen(narrow.fd, 0));
  int filler = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(narrow.port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(0, connect(filler, reinterpret_cast<sockaddr*>(&addr), sizeof addr));
  connection_set_target_for_test("127.0.0.1", narrow.port);

  EXPECT_EQ("<NOTE>Trying to connect to router...\n", capture_stderr([] { connection_connect(); }));
  EXPECT_EQ("", capture_stderr([] { connection_poll(); }));
  EXPECT_TRUE(connection_connect_in_progress());
  connection_set_last_activity_for_test(monotonic_now_us() - twenty_one_s);
  EXPECT_EQ("<WARN>Connection timeout\n<NOTE>Connection to router closed\n",
            capture_stderr([] { connection_poll(); }));
  EXPECT_FALSE(connection_is_open());

  connection_set_next_connect_time_for_test(0);
  EXPECT_EQ("<NOTE>Trying to connect to router...\n", capture_stderr([] { connection_connect(); }));
  int first = accept_within(narrow, 2000);
  ASSERT_GE(first, 0);
  const us_time_t give_up = monotonic_now_us() + 10000000;
  const std::string lines = capture_stderr([&] {
    while (connection_connect_in_progress() && monotonic_now_us() < give_up) connection_connect();
  });
  EXPECT_EQ("<NOTE>Connection sucessful.\n", lines);
  EXPECT_TRUE(flag_is_set(process_flag::sync_needed));
  close_fd(first);
  close_fd(filler);
  close_fd(narrow.fd);
}

TEST_F(ConnectionTest, WatchdogDropsSilentConnection) {
  Connect();
  EXPECT_TRUE(flag_is_set(process_flag::sync_needed));
  EXPECT_EQ("", capture_stderr([] { connection_poll(); }));
  connection_set_last_activity_for_test(monotonic_now_us() - twenty_one_s);
  EXPECT_EQ("<WARN>Connection timeout\n<NOTE>Connection to router closed\n",
            capture_stderr([] { connection_poll(); }));
  EXPECT_FALSE(connection_is_open());
  EXPECT_FALSE(flag_is_set(process_flag::sync_needed));
}

TEST_F(ConnectionTest, DroppedConnectionIsClosed) {
  Connect();
  close_fd(peer_);
  EXPECT_EQ("<NOTE>Connection suddenly dropped\n<NOTE>Connection to router closed\n",
            capture_stderr([] { PollUntil([] { return !connection_is_open(); }); }));
  EXPECT_FALSE(flag_is_set(process_flag::sync_needed));

  // Dropped and silent too long in the same step: the watchdog only warns.
  connection_set_next_connect_time_for_test(0);
  Connect();
  close_fd(peer_);
  pollfd end_of_stream{connection_socket(), POLLIN, 0};
  ASSERT_EQ(1, poll(&end_of_stream, 1, 2000));
  connection_set_last_activity_for_test(monotonic_now_us() - twenty_one_s);
  EXPECT_EQ(
      "<NOTE>Connection suddenly dropped\n<NOTE>Connection to router closed\n"
      "<WARN>Connection timeout\n",
      capture_stderr([] { connection_poll(); }));
}

TEST_F(ConnectionTest, PartialWritesGoOutInOrder) {
  // A small receive buffer on the switcher's side fills the link quickly.
  const int small = 4096;
  ASSERT_EQ(0, setsockopt(listener_.fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small));
  Connect();
  std::string expected;
  int sent = 0;
  capture_stderr([&] {
    // Keep sending until bytes wait, then a few more that must queue behind.
    for (int extra = 0; extra < 3 && sent < 50000; ++sent) {
      router_message m = make_router_request("TI", {std::to_string(sent), std::string(900, 'x')});
      router_frame frame;
      ASSERT_TRUE(encode_router_frame(m, frame));
      expected += frame.data();
      ASSERT_TRUE(connection_sendmsg(m));
      if (connection_tx_pending()) ++extra;
    }
  });
  ASSERT_TRUE(connection_tx_pending());

  std::string got;
  const us_time_t give_up = monotonic_now_us() + 20000000;
  while ((got.size() < expected.size() || connection_tx_pending()) &&
         monotonic_now_us() < give_up) {
    connection_poll();
    got += read_for(peer_, 1, 10);
  }
  EXPECT_FALSE(connection_tx_pending());
  EXPECT_EQ(expected.size(), got.size());
  EXPECT_TRUE(expected == got);
}

}  // namespace

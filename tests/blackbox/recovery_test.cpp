// A flaky switcher: the backend logs what went wrong, reconnects no more often
// than every 5 s, synchronises from scratch and keeps serving its parent. A
// hang-up's own line and a full resynchronisation after a reconnect are shown
// by the router and system tests.
#include <chrono>

#include "blackbox/system_fixture.h"
#include "router/link_texts.h"

namespace {

using steady = std::chrono::steady_clock;

class RecoveryTest : public SystemTest {
 protected:
  // Waits for the emulator's next client; returns when it connected.
  steady::time_point NextClient() {
    EXPECT_NE("", wait_for_stderr(emu_, "client connected"));
    return steady::now();
  }
  static double SecondsSince(steady::time_point t) {
    return std::chrono::duration<double>(steady::now() - t).count();
  }
};

// The link is closed 3 s after an unanswered request and rebuilt 5 s after
// the first attempt started, the parent served meanwhile.
TEST_F(RecoveryTest, SilentSwitcherTimesOutAndTheLinkIsRebuilt) {
  StartEmulator({"--silent-after", "4"});
  StartBackend();
  const steady::time_point first = NextClient();
  ASSERT_NE("", wait_for_stderr(emu_, "recv BK I 15"));
  const steady::time_point sent = steady::now();
  EXPECT_EQ("<ERR>Timeout receiving message\n", wait_for_stderr(backend_, "<ERR>"));
  EXPECT_GT(SecondsSince(sent), 2.5);
  EXPECT_LT(SecondsSince(sent), 5.0);
  EXPECT_EQ(link_closed, wait_for_stderr(backend_, "<NOTE>"));
  Send("*COMMAND=report\n*TYPE=command\n*ID=2\nwhat=inputs\n\n");  // served with the link down
  EXPECT_EQ("*TYPE=reply\n*ID=2\n", WaitRecord("*ID=2"));
  NextClient();
  EXPECT_GT(SecondsSince(first), 4.0);
  EXPECT_LT(SecondsSince(first), 8.0);
  EXPECT_NE("", wait_for_stderr(emu_, "recv BK N"));
}

TEST_F(RecoveryTest, HandshakeAnsweredOnlyWithAcksGivesUpAfterFiveSeconds) {
  StartEmulator({"--ack-only"});
  StartBackend();
  const steady::time_point start = NextClient();
  EXPECT_EQ("<ERR>Timeout sending message\n", wait_for_stderr(backend_, "<ERR>"));
  EXPECT_GT(SecondsSince(start), 4.0);
  EXPECT_LT(SecondsSince(start), 7.0);
  EXPECT_EQ(link_closed, wait_for_stderr(backend_, link_closed));
  // Resent every 100 ms: about fifty handshakes on the connection given up.
  // A loaded machine stretches the resend cycles, never shortens them, so
  // the lower bound is loose; 200 ms or 50 ms resends still fall outside.
  const std::string& seen = emu_.err_buf;
  (void)child_wait([&seen] { return seen.find("client closed") != std::string::npos; }, wait_ms);
  const std::size_t closed = seen.find("client closed");
  ASSERT_NE(std::string::npos, closed);
  const std::string log = seen.substr(0, closed);
  int handshakes = 0;
  for (std::size_t at = 0; (at = log.find("recv BK\n", at)) != std::string::npos; ++at) {
    ++handshakes;
  }
  EXPECT_GE(handshakes, 35);
  EXPECT_LE(handshakes, 55);
}

}  // namespace

// A switcher that only acknowledges the handshake: the backend resends it every
// 100 ms, gives up after 5 s and closes the link. A silent switcher, a hang-up
// and reconnecting every 5 s are shown by the router and synchronisation tests
// and, against the emulator's chaos, by the fault soak.
#include "blackbox/system_fixture.h"
#include "router/link_texts.h"

namespace {

class RecoveryTest : public SystemTest {};

TEST_F(RecoveryTest, HandshakeAnsweredOnlyWithAcksGivesUpAfterFiveSeconds) {
  StartEmulator({"--ack-only"});
  StartBackend();
  EXPECT_NE("", LinesUntil(emu_.err_buf, "client connected"));
  const us_time_t start = monotonic_now_us();
  EXPECT_EQ("<ERR>Timeout sending message\n", wait_for_stderr(backend_, "<ERR>"));
  const us_time_t waited = monotonic_now_us() - start;
  EXPECT_GT(waited, 4'000'000);
  EXPECT_LT(waited, 7'000'000);
  EXPECT_EQ(link_closed, wait_for_stderr(backend_, link_closed));
  // Resent every 100 ms: about fifty handshakes on the connection given up.
  // A loaded machine stretches the resend cycles, never shortens them, so
  // the lower bound is loose; 200 ms or 50 ms resends still fall outside.
  const std::string log = LinesUntil(emu_.err_buf, "client closed");
  ASSERT_NE("", log);
  int handshakes = 0;
  for (std::size_t at = 0; (at = log.find("recv BK\n", at)) != std::string::npos; ++at) {
    ++handshakes;
  }
  EXPECT_GE(handshakes, 35);
  EXPECT_LE(handshakes, 55);
}

}  // namespace

// A switcher that only acknowledges the handshake: the backend resends it every
// 100 ms, gives up after 5 s and closes the link. A silent switcher, a hang-up
// and reconnecting every 5 s are shown by the router and synchronisation tests
// and, against the emulator's chaos, by the fault soak.
#include <chrono>

#include "blackbox/system_fixture.h"
#include "router/link_texts.h"

namespace {

class RecoveryTest : public SystemTest {};

TEST_F(RecoveryTest, HandshakeAnsweredOnlyWithAcksGivesUpAfterFiveSeconds) {
  StartEmulator({"--ack-only"});
  StartBackend();
  EXPECT_NE("", wait_for_stderr(emu_, "client connected"));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ("<ERR>Timeout sending message\n", wait_for_stderr(backend_, "<ERR>"));
  const std::chrono::duration<double> waited = std::chrono::steady_clock::now() - start;
  EXPECT_GT(waited.count(), 4.0);
  EXPECT_LT(waited.count(), 7.0);
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

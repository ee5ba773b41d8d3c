// The whole backend against the switcher emulator: the synchronisation on the
// wire and the reports it produces, then a take and renames coming back
// through status polling, a run-time address change and the end of input.
#include "blackbox/system_fixture.h"
#include "router/link_texts.h"

namespace {

TEST_F(SystemTest, SynchronisesThenFollowsTakesRenamesAndAddressChanges) {
  StartEmulator({"--outputs", "3", "--inputs", "4", "--model", "Test Model", "--firmware-type",
                 "V5", "--firmware-revision", "2.1", "--routes", "1:2,2:3,3:4"});
  StartBackend();
  const std::string log = LinesUntil(emu_.err_buf, "recv QI 3 0");
  std::string received;
  for (std::size_t at = 0; (at = log.find("recv ", at)) != std::string::npos; at += 5) {
    received += log.substr(at + 5, log.find('\n', at) - at - 4);
  }
  EXPECT_EQ("BK\nBK N\nBK R\nBK T\nBK I 15\nBK E OFF\nBK D\nQN L\nQN IS\nQN ID\nQI 1 0\nQI 2 0\nQI 3 0\n",
            received);
  EXPECT_EQ(Info(4, 3, "Test Model", "V5 [2.1]"), WithoutCopyright(WaitRecord("model=Test Model")));
  // The routes learned during the synchronisation, then the names tables.
  EXPECT_EQ("*COMMAND=outputs\n*TYPE=message\no0.input.all=1\no1.input.all=2\no2.input.all=3\n",
            read_record(backend_));
  EXPECT_EQ("*COMMAND=inputs\n*TYPE=message\ni0.name=CAM 1\ni1.name=CAM 2\ni2.name=CAM 3\n"
            "i3.name=CAM 4\n", read_record(backend_));
  EXPECT_EQ("*COMMAND=outputs\n*TYPE=message\no0.name=OUT 1\no1.name=OUT 2\no2.name=OUT 3\n",
            read_record(backend_));

  Send("*COMMAND=route output\n*TYPE=command\n*ID=7\nfrom input=0\nqueue=add\nto output=2\n\n"
       "*COMMAND=route output\n*TYPE=command\n*ID=8\nqueue=flush\n\n");
  EXPECT_EQ("*COMMAND=route output\n*TYPE=reply\n*ID=7\n", read_record(backend_));
  // Destination and source are the switcher's numbers: position plus base 1.
  EXPECT_NE("", LinesUntil(emu_.err_buf, "recv TI 3 1"));
  EXPECT_EQ("*COMMAND=route output\n*TYPE=reply\n*ID=8\n", read_record(backend_));
  EXPECT_EQ("*COMMAND=outputs\n*TYPE=message\no2.input.all=0\n", WaitRecord("input.all"));
  child_write(emu_, "rename output 2 Studio B\n");
  EXPECT_EQ("*COMMAND=outputs\n*TYPE=message\no0.name=OUT 1\no1.name=Studio B\no2.name=OUT 3\n",
            WaitRecord(".name="));

  // Another spelling of the same address rebuilds the connection.
  Send("*COMMAND=set\n*TYPE=message\nname=ip address\nvalue=127.1\n\n");
  EXPECT_EQ(link_closed, wait_for_stderr(backend_, link_closed));
  EXPECT_NE("", LinesUntil(emu_.err_buf, "client closed"));
  EXPECT_NE("", LinesUntil(emu_.err_buf, "client connected"));
  EXPECT_NE("", LinesUntil(emu_.err_buf, "recv BK N"));
  ASSERT_NE("", WaitRecord("o1.name=Studio B"));
  child_close_input(backend_.child);
  EXPECT_EQ(0, wait_exit(backend_));
  ASSERT_FALSE(backend_.diags.empty());
  EXPECT_EQ(link_closed, backend_.diags.back().text + "\n");
}

// A switcher that only acknowledges the handshake: the backend resends it every
// 100 ms, gives up after 5 s and closes the link. A silent switcher, a hang-up
// and reconnecting every 5 s are shown by the router and synchronisation tests
// and, against the emulator's chaos, by the fault soak.
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

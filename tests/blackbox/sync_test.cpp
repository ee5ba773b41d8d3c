// The whole backend against the switcher emulator: the synchronisation on the
// wire, the reports it produces, route changes and renames coming back
// through status polling, and the parent served while the backend waits.

#include "blackbox/system_fixture.h"

namespace {

TEST_F(SystemTest, SynchronisesInOrderAndReportsWhatItLearned) {
  StartEmulator({"--outputs", "3", "--inputs", "4", "--model", "Test Model", "--firmware-type",
                 "V5", "--firmware-revision", "2.1", "--routes", "1:2,2:3,3:4"});
  StartBackend();
  const std::vector<std::string> expected{"BK",       "BK N",   "BK R",  "BK T",  "BK I 15",
                                          "BK E OFF", "BK D",   "QN L",  "QN IS", "QN ID",
                                          "QI 1 0",   "QI 2 0", "QI 3 0"};
  EXPECT_EQ(expected, ReceivedUntil("QI 3 0"));

  EXPECT_EQ(
      "*COMMAND=info\n*TYPE=message\ncompany=Grass Valley\nfirmware version=V5 [2.1]\n"
      "inputs=4\nmodel=Test Model\noutput routing controls=all\noutputs=3\n"
      "product=Grass Valley Native Protocol switcher or compatible\n",
      WithoutCopyright(WaitRecord("model=Test Model")));
  // The routes learned during the synchronisation, then the names tables.
  EXPECT_EQ("*COMMAND=outputs\n*TYPE=message\no0.input.all=1\no1.input.all=2\no2.input.all=3\n",
            read_record(backend_, wait_ms));
  EXPECT_EQ(
      "*COMMAND=inputs\n*TYPE=message\ni0.name=CAM 1\ni1.name=CAM 2\ni2.name=CAM 3\n"
      "i3.name=CAM 4\n",
      read_record(backend_, wait_ms));
  EXPECT_EQ("*COMMAND=outputs\n*TYPE=message\no0.name=OUT 1\no1.name=OUT 2\no2.name=OUT 3\n",
            read_record(backend_, wait_ms));
}

TEST_F(SystemTest, RouteChangeReachesSwitcherAndComesBack) {
  StartEmulator({"--outputs", "4", "--inputs", "8"});
  StartBackend();
  ASSERT_NE("", WaitRecord("o3.name=OUT 4"));

  Send("*COMMAND=route output\n*TYPE=command\n*ID=7\nfrom input=6\nqueue=add\nto output=2\n\n");
  Send("*COMMAND=route output\n*TYPE=command\n*ID=8\nqueue=flush\n\n");
  EXPECT_EQ("*COMMAND=route output\n*TYPE=reply\n*ID=7\n", read_record(backend_, wait_ms));
  // Destination and source are the switcher's numbers: position plus base 1.
  EXPECT_NE("", wait_for_stderr(emu_, "recv TI 3 7", wait_ms));
  EXPECT_EQ("*COMMAND=route output\n*TYPE=reply\n*ID=8\n", read_record(backend_, wait_ms));
  EXPECT_EQ("*COMMAND=outputs\n*TYPE=message\no2.input.all=6\n", WaitRecord("input.all"));
}

TEST_F(SystemTest, RenamesInSwitcherReachParent) {
  StartEmulator({"--outputs", "2", "--inputs", "2"});
  StartBackend();
  ASSERT_NE("", WaitRecord("o1.name=OUT 2"));

  ASSERT_TRUE(send_text(emu_, "rename output 2 Studio B\n"));
  EXPECT_EQ("*COMMAND=outputs\n*TYPE=message\no0.name=OUT 1\no1.name=Studio B\n",
            WaitRecord(".name="));
  ASSERT_TRUE(send_text(emu_, "rename input 1 Mic\n"));
  EXPECT_EQ("*COMMAND=inputs\n*TYPE=message\ni0.name=Mic\ni1.name=CAM 2\n", WaitRecord(".name="));
}

TEST_F(SystemTest, ParentServedDuringSynchronisation) {
  // Answers come 50 ms late (still inside the handshake's 100 ms resend), so
  // the backend spends its time waiting inside exchanges. The request is sent
  // whole but for its final empty line, which then completes it while an
  // exchange waits.
  StartEmulator({"--outputs", "12", "--inputs", "2", "--delay", "50"});
  StartBackend();
  Send("*COMMAND=report\n*TYPE=command\n*ID=5\nwhat=inputs\n");
  ASSERT_NE("", wait_for_stderr(emu_, "recv BK N", wait_ms));
  Send("\n");
  std::string record;
  while ((record = read_record(backend_, wait_ms)).find("*ID=5") == std::string::npos) {
    ASSERT_NE("", record);
    ASSERT_EQ(std::string::npos, record.find("input.all")) << "reply after the sync ended";
  }
  EXPECT_EQ("*TYPE=reply\n*ID=5\n", record);
  ASSERT_NE("", WaitRecord("o11.input.all"));
}

}  // namespace

// The real binary on paths the other black-box files leave out: the first
// info report when no count ever changes, and a run-time address change that
// rebuilds the connection, ended by the parent while connected.
#include "blackbox/system_fixture.h"

namespace {

TEST_F(SystemTest, FirstInfoReportComesWithoutAnyCountChange) {
  StartBackend("# no keys\n");
  EXPECT_EQ(
      "*COMMAND=info\n*TYPE=message\ncompany=Grass Valley\nfirmware version=\n"
      "inputs=0\nmodel=\noutput routing controls=all\noutputs=0\n"
      "product=Grass Valley Native Protocol switcher or compatible\n",
      WithoutCopyright(read_record(backend_, wait_ms)));
  close_input(backend_);
  EXPECT_EQ(0, wait_exit(backend_, wait_ms));
  EXPECT_TRUE(backend_.records.empty() && backend_.child.out_buf.empty());
  EXPECT_TRUE(backend_.diags.empty() && backend_.child.err_buf.empty());
}

TEST_F(SystemTest, AddressChangeReconnectsAndTheEndClosesTheLink) {
  StartEmulator({"--outputs", "2", "--inputs", "2"});
  StartBackend();
  ASSERT_NE("", WaitRecord("o1.name=OUT 2"));
  // Another spelling of the same address is a changed value.
  Send("*COMMAND=set\n*TYPE=message\nname=ip address\nvalue=127.1\n\n");
  EXPECT_EQ("<NOTE>Connection to router closed\n",
            wait_for_stderr(backend_, "<NOTE>Connection to router closed", wait_ms));
  EXPECT_NE("", wait_for_stderr(emu_, "client closed", wait_ms));
  EXPECT_NE("", wait_for_stderr(emu_, "client connected", wait_ms));
  EXPECT_NE("", wait_for_stderr(emu_, "recv BK N", wait_ms));
  ASSERT_NE("", WaitRecord("o1.name=OUT 2"));
  close_input(backend_);
  EXPECT_EQ(0, wait_exit(backend_, wait_ms));
  ASSERT_FALSE(backend_.diags.empty());
  EXPECT_EQ("<NOTE>Connection to router closed", backend_.diags.back().text);
}

}  // namespace

// The command dispatcher and the first reports through the real binary's
// standard input and output, with no switcher configured.
#include <gtest/gtest.h>

#include <string>

#include "support/process.h"
#include "support/temp_file.h"

namespace {

constexpr int wait_ms = 5000;

class DispatcherBlackboxTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string cfg = dir.write("router.cfg", "inputs = 16\noutputs = 8\n");
    ASSERT_TRUE(spawn(child, DAEMON_PATH, {DAEMON_PATH, "--file", cfg}));
  }

  temp_dir dir;
  child_process child;
};

// The credit text is the one field whose wording is free.
std::string without_credit(const std::string& record) {
  const std::size_t at = record.find("copyright=");
  if (at == std::string::npos) return record;
  const std::size_t end = record.find('\n', at);
  return record.substr(0, at) + "copyright=\n" + record.substr(end + 1);
}

TEST_F(DispatcherBlackboxTest, FirstInfoReport) {
  EXPECT_EQ(
      "*COMMAND=info\n*TYPE=message\ncompany=Grass Valley\ncopyright=\nfirmware version=\n"
      "inputs=16\nmodel=\noutput routing controls=all\noutputs=8\n"
      "product=Grass Valley Native Protocol switcher or compatible\n",
      without_credit(read_record(child, wait_ms)));
}

TEST_F(DispatcherBlackboxTest, RequestsAndReplies) {
  struct Case {
    const char* name;
    std::string request;
    std::string reply;  // empty: none; the next case's reply comes next
  };
  const Case cases[] = {
      {"set", "*COMMAND=set\n*TYPE=message\nname=outputs\nvalue=4\n\n", ""},
      {"add", "*COMMAND=route output\n*TYPE=command\n*ID=41\nfrom input=9\nqueue=add\n"
              "to output=3\n\n",
       "*COMMAND=route output\n*TYPE=reply\n*ID=41\n"},
      // Error paths follow
      {"reply type", "*COMMAND=report\n*TYPE=reply\n*ID=44\nwhat=inputs\n\n", ""},
      {"unknown command", "*COMMAND=Report\n*TYPE=command\n*ID=46\n\n",
       "*COMMAND=Report\n*ERROR=Unknown command Report\n*TYPE=reply\n*ID=46\n"},
  };
  ASSERT_NE("", read_record(child, wait_ms));  // the first info report
  for (const Case& c : cases) ASSERT_TRUE(send_text(child, c.request));
  // The "set" changed the outputs: its info report comes before any reply.
  const std::string info = read_record(child, wait_ms);
  EXPECT_NE(std::string::npos, info.find("\noutputs=4\n")) << info;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (!c.reply.empty()) {
      EXPECT_EQ(c.reply, read_record(child, wait_ms));
    }
  }
  close_input(child);
  EXPECT_EQ(0, wait_exit(child, wait_ms));
}

}  // namespace

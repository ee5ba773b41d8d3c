#include "service/dispatcher.h"

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
#include "service/route_queue.h"
#include "service/switcher_peer.h"

namespace {

class DispatcherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    reset_configuration();
    reset_process_flags();
    reset_router_tables();
    reset_route_queues();
    connection_reset_for_test();
    receive_reset_for_test();
    ASSERT_EQ(0, pipe2(parent_in, O_NONBLOCK));
    ASSERT_EQ(0, pipe2(parent_out, O_NONBLOCK));
    parent_channel_use_fds_for_test(parent_in[0], parent_out[1]);
    load_switcher_tables(1, 8);
  }

  void TearDown() override {
    switcher_link_down(peer);
    reset_route_queues();
    for (int fd : {parent_in[0], parent_in[1], parent_out[0], parent_out[1]}) close(fd);
  }

  // Writes request text to the backend's input and serves messages until
  // the input is read; returns what the backend wrote back.
  std::string exchange(const std::string& text) {
    EXPECT_EQ(static_cast<ssize_t>(text.size()), write(parent_in[1], text.data(), text.size()));
    // Two bytes are read per poll; a few more polls finish the last record.
    for (std::size_t i = 0; i < text.size() + 4; ++i) poll_parent_message();
    std::string out;
    char buf[4096];
    for (ssize_t n; (n = read(parent_out[0], buf, sizeof buf)) > 0;) out.append(buf, n);
    return out;
  }

  switcher_peer peer;
  int parent_in[2] = {-1, -1};
  int parent_out[2] = {-1, -1};
};

TEST_F(DispatcherTest, Classification) {
  struct Case {
    const char* name;
    std::string request;
    std::string reply;
  };
  const Case cases[] = {
      {"set is applied silently", "*COMMAND=set\n*TYPE=message\nname=port\nvalue=2000\n\n", ""},
      {"other message", "*COMMAND=route output\n*TYPE=message\n*ID=2\n\n",
       "*COMMAND=route output\n*ERROR=Message route output ignored\n*TYPE=reply\n*ID=2\n\n"},
      {"route request", "*COMMAND=route output\n*TYPE=command\n*ID=3\nqueue=none\n\n",
       "*COMMAND=route output\n*TYPE=reply\n*ID=3\n\n"},
      {"report inputs", "*COMMAND=report\n*TYPE=command\n*ID=4\nwhat=inputs\n\n",
       "*TYPE=reply\n*ID=4\n\n"},
      {"report outputs while disconnected",
       "*COMMAND=report\n*TYPE=command\n*ID=5\nwhat=outputs\n\n", "*TYPE=reply\n*ID=5\n\n"},
      // Error paths follow
      {"report of something else", "*COMMAND=report\n*TYPE=command\n*ID=6\nwhat=levels\n\n",
       "*COMMAND=report\n*ERROR=I do not recognize what you are asking for\n*TYPE=reply\n"
       "*ID=6\n\n"},
      {"report without what", "*COMMAND=report\n*TYPE=command\n*ID=7\n\n",
       "*COMMAND=report\n*ERROR=I do not recognize what you are asking for\n*TYPE=reply\n"
       "*ID=7\n\n"},
      {"command differing in case", "*COMMAND=Route Output\n*TYPE=command\n*ID=8\n\n",
       "*COMMAND=Route Output\n*ERROR=Unknown command Route Output\n*TYPE=reply\n*ID=8\n\n"},
      {"set as a command", "*COMMAND=set\n*TYPE=command\n*ID=9\nname=port\nvalue=1\n\n",
       "*COMMAND=set\n*ERROR=Unknown command set\n*TYPE=reply\n*ID=9\n\n"},
      {"reply type", "*COMMAND=report\n*TYPE=reply\n*ID=10\nwhat=inputs\n\n", ""},
      {"no type", "*COMMAND=report\n*ID=11\nwhat=inputs\n\n", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.reply, exchange(c.request));
  }
  EXPECT_EQ(2000, router_port());  // the "set" command did not apply
  EXPECT_TRUE(queued_route_changes().empty());
}

TEST_F(DispatcherTest, RouteRequestFields) {
  struct Case {
    const char* name;
    std::string fields;
    int input;   // of the change queued
    int output;  // -1: nothing queued
  };
  // 8 active inputs and outputs.
  const Case cases[] = {
      {"add", "from input=3\nqueue=add\nto output=0\n", 3, 0},
      {"control all", "control=all\nfrom input=3\nqueue=add\nto output=1\n", 3, 1},
      {"other control", "control=none\nfrom input=3\nqueue=add\nto output=1\n", -1, 1},
      {"digits then letters", "from input=5ab\nqueue=add\nto output=7\n", 5, 7},
      {"cut to 32 bits", "from input=4294967298\nqueue=add\nto output=2\n", 2, 2},
      // Error paths follow
      {"minus sign", "from input=-1\nqueue=add\nto output=2\n", -1, 2},
      {"leading blank", "from input= 3\nqueue=add\nto output=2\n", -1, 2},
      {"input not below active inputs", "from input=12ab\nqueue=add\nto output=2\n", -1, 2},
      {"no input", "queue=add\nto output=2\n", -1, 2},
      {"output equal to active outputs", "from input=1\nqueue=add\nto output=8\n", 0, -1},
      {"no output", "from input=1\nqueue=add\n", 0, -1},
      {"queue is case-sensitive", "from input=1\nqueue=Add\nto output=2\n", 0, -1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    reset_route_queues();
    EXPECT_EQ("*COMMAND=route output\n*TYPE=reply\n*ID=41\n\n",
              exchange("*COMMAND=route output\n*TYPE=command\n*ID=41\n" + c.fields + "\n"));
    if (c.output < 0) {
      EXPECT_TRUE(queued_route_changes().empty());
      continue;
    }
    ASSERT_EQ(1u, queued_route_changes().size());
    EXPECT_EQ(c.input, queued_route_changes().front().input);
    EXPECT_EQ(c.output, queued_route_changes().front().output);
  }
}

// A second request arrives while the first waits on the switcher: it is
// answered inside the wait, and the first reply keeps its own id and command.
TEST_F(DispatcherTest, NestedRequestDuringSwitcherWait) {
  struct Case {
    const char* name;
    unsigned outputs;
    std::string outer;
    std::string outer_reply;
    std::vector<std::string> sent;  // command letters and parameters
  };
  const Case cases[] = {
      {"flush", 8, "*COMMAND=route output\n*TYPE=command\n*ID=70\nqueue=flush\n\n",
       "*COMMAND=route output\n*TYPE=reply\n*ID=70\n\n", {"TI 5,A"}},
      {"output status loop", 3, "*COMMAND=report\n*TYPE=command\n*ID=71\nwhat=outputs\n\n",
       "*TYPE=reply\n*ID=71\n\n", {"QI 1,0", "QI 2,0", "QI 3,0"}},
  };
  ASSERT_TRUE(switcher_link_up(peer, true));
  // The switcher answers only once the nested request has been read.
  peer.hold_while_readable = parent_in[0];
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    load_switcher_tables(1, c.outputs);
    reset_route_queues();
    add_route_change({9, 4});
    peer.frames.clear();
    peer.answered = 0;
    const std::string out = exchange(
        c.outer + "*COMMAND=route output\n*TYPE=command\n*ID=80\nfrom input=1\nqueue=add\n" +
        "to output=2\n\n");
    EXPECT_EQ("*COMMAND=route output\n*TYPE=reply\n*ID=80\n\n" + c.outer_reply, out);
    std::vector<std::string> sent;
    for (const std::string& f : peer.frames) sent.push_back(f.substr(3, 2) + " " + frame_params(f));
    EXPECT_EQ(c.sent, sent);
    // The nested add was queued after the flush had taken the queue.
    ASSERT_FALSE(queued_route_changes().empty());
    EXPECT_EQ(2, queued_route_changes().back().output);
  }
}

}  // namespace

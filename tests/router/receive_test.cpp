#include "router/receive.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "router/connection.h"
#include "router/router_fixture.h"

namespace {

class ReceiveParserTest : public ::testing::Test {
 protected:
  void SetUp() override {
    receive_reset_for_test();
    connection_set_last_activity_for_test(0);
  }

  // Feeds bytes in one piece, or one byte per call; returns the lines written.
  static std::string Feed(const std::string& bytes, bool bytewise = false) {
    return capture_stderr([&] {
      if (!bytewise) {
        receive_bytes(bytes.data(), bytes.size());
        return;
      }
      for (char c : bytes) receive_bytes(&c, 1);
    });
  }

  // Everything queued, each as its raw text and description.
  static std::vector<std::string> TakeAll() {
    std::vector<std::string> out;
    while (!received_queue_empty()) {
      const router_message m = connection_recvmsg();
      out.push_back(m.raw + " | " + describe_router_message(m));
    }
    return out;
  }
};

TEST_F(ReceiveParserTest, SplitAnywhereDecodesAsWhole) {
  const std::string stream = "\r" + framed("N0QD") + "\x06" + "\x15" "0001\x04" +
                             std::string("\x01N0\0junk\x04", 9) + framed("N1TI\t1\tA") +
                             "\x01N0QDEE\x04" + "\x01" + std::string(4100, 'z') + "\x04" +
                             framed("N0ER\t0A");
  const std::string whole_lines = Feed(stream);
  const std::vector<std::string> whole = TakeAll();
  receive_reset_for_test();
  EXPECT_EQ(whole_lines, Feed(stream, true));
  EXPECT_EQ(whole, TakeAll());

  // Arrival order, with the NUL message and the bad checksum dropped.
  ASSERT_EQ(5u, whole.size());
  EXPECT_EQ(std::string("N0QDED | [OK] request=QD protocol=N seq=0 "), whole[0]);
  EXPECT_EQ(0u, whole[1].find(" | [OK] [ACK] "));
  EXPECT_EQ(0u, whole[2].find("0001 | [NAK] "));
  EXPECT_EQ(std::string("N1TI\t1\tA60 | [OK] request=TI protocol=N seq=1 param=1,A"), whole[3]);
  EXPECT_EQ(0u, whole[4].find("N0ER\t0A"));
}

TEST_F(ReceiveParserTest, LinesAndDrops) {
  struct Case {
    const char* name;
    std::string bytes;
    std::string lines;
    std::size_t queued;
  };
  const std::string longest_body = framed(std::string(4094, 'A'));
  const Case cases[] = {
      {"ACK", "\x06", "<DBG>Router: ACK\n", 1},
      {"lower-case checksum", "\x01N0QDed\x04", "<DBG>Router: MSG N0QDed\n", 1},
      {"two-byte body", "\x01" "00\x04", "<DBG>Router: MSG 00\n", 1},
      {"4096-byte body", longest_body, "<DBG>Router: MSG " + longest_body.substr(1, 4096) + "\n",
       1},
      // Error paths follow.
      {"CR LF between messages", "\r\n",
       "Discarding unexpected byte 0d\nDiscarding unexpected byte 0a\n", 0},
      {"EOT in idle", "\x04", "Discarding unexpected byte 04\n", 0},
      {"NUL inside", std::string("\x01N0\0QD\x04", 7),
       "<WARN>Unexpected NUL in response from router switcher, ignoring response\n", 0},
      {"NUL with lost EOT takes the next message", std::string("\x01N0\0", 4) + framed("N0QD"),
       "<WARN>Unexpected NUL in response from router switcher, ignoring response\n", 0},
      {"no checksum field", "\x01" "A\x04",
       "<DBG>Router: MSG A\n<DBG>Message rejected, no checksum field\n", 0},
      {"bad checksum", "\x01N0QDEE\x04",
       "<DBG>Router: MSG N0QDEE\n<DBG>Message rejected, invalid checksum (want=ee got=ed)\n", 0},
      {"checksum not hexadecimal", "\x01N0QDZZ\x04",
       "<DBG>Router: MSG N0QDZZ\n<DBG>Message rejected, invalid checksum (want=00 got=ed)\n", 0},
      {"4097-byte body", "\x01" + std::string(4097, 'A') + "\x04",
       "<WARN>Over-long rambling response from router switcher\nDiscarding unexpected byte 04\n",
       0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    receive_reset_for_test();
    EXPECT_EQ(c.lines, Feed(c.bytes));
    EXPECT_EQ(c.queued, TakeAll().size());
    EXPECT_FALSE(receive_in_progress());
  }
}

TEST_F(ReceiveParserTest, ErrorAndNakCodes) {
  struct Case {
    std::string bytes;
    bool ok, err, nak;
    std::int32_t nakerr;
  };
  const Case cases[] = {
      {framed("N0QD"), true, false, false, -1},
      {framed("N0ER\t00\tQD"), true, false, false, 0},
      {framed("N0ER\tZZ"), true, false, false, 0},
      {framed("N0ER\t0A"), false, true, false, 10},
      {framed("N0ER"), false, true, false, -1},
      {framed("N0ER\t"), false, true, false, -1},  // a TAB before the checksum opens nothing
      {"\x15" "0001\x04", false, false, true, 1},
      {"\x15\x04", false, false, true, 0},
      {"\x15" "ffffx\x04", false, false, true, 0xFFFF},
      {"\x15" "FFFFFFFFF\x04", false, false, true, -1},  // wraps at 32 bits
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.bytes);
    Feed(c.bytes);
    const router_message m = connection_recvmsg();
    EXPECT_EQ(c.ok, m.ok);
    EXPECT_EQ(c.err, m.err);
    EXPECT_EQ(c.nak, m.nak);
    EXPECT_EQ(c.nakerr, m.nakerr);
  }
}

TEST_F(ReceiveParserTest, ParameterSplitting) {
  struct Case {
    std::string body;
    std::vector<std::string> parameters;
  };
  const Case cases[] = {
      {"N0TI\t1\tA", {"1", "A"}},
      {"N0TIxyz\t1", {"1"}},  // bytes before the first TAB are ignored
      {"N0TI\t\tX", {"", "X"}},
      {"N0TI\t1\t", {"1"}},
      {"N0TI\t\t", {""}},
      {"N0TI1", {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.body);
    Feed(framed(c.body));
    EXPECT_EQ(c.parameters, connection_recvmsg().parameters);
  }
  // A body too short for a header lends its checksum characters.
  Feed(framed("N0"));
  const router_message m = connection_recvmsg();
  EXPECT_EQ('N', m.protocol);
  EXPECT_STREQ("82", m.request);
}

TEST_F(ReceiveParserTest, ActivityAndPartialMessages) {
  Feed("\x01N0QDEE\x04");
  EXPECT_NE(0u, connection_last_activity_for_test());
  connection_set_last_activity_for_test(0);
  Feed(std::string("\x01N0\0QD\x04", 7) + "\x01" + std::string(4097, 'A'));
  EXPECT_EQ(0u, connection_last_activity_for_test());
  Feed("\x06");
  EXPECT_NE(0u, connection_last_activity_for_test());

  // A message partly received is not queued yet.
  receive_reset_for_test();
  Feed("\x01N0Q");
  EXPECT_TRUE(receive_in_progress());
  const router_message m = connection_recvmsg();
  EXPECT_TRUE(m.raw.empty());
  EXPECT_FALSE(m.ok || m.ack || m.nak || m.err);
  EXPECT_EQ(-1, m.nakerr);
}

}  // namespace

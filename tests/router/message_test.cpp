#include "router/message.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "router/receive.h"
#include "router/router_fixture.h"

namespace {

router_message with_flags(bool ack, bool nak, std::int32_t nakerr) {
  router_message m;
  m.ack = ack;
  m.nak = nak;
  m.nakerr = nakerr;
  return m;
}

std::string encoded(const router_message& m) {
  router_frame frame;
  frame.fill('#');
  if (!encode_router_frame(m, frame)) return "<fails>";
  return std::string(frame.data());
}

// The description with a NUL protocol byte shown as '~'.
std::string printable_description(const router_message& m) {
  std::string d = describe_router_message(m);
  std::replace(d.begin(), d.end(), '\0', '~');
  return d;
}

router_message decoded(const std::string& bytes) {
  capture_stderr([&] { receive_bytes(bytes.data(), bytes.size()); });
  return connection_recvmsg();
}

class RouterMessageTest : public ::testing::Test {
 protected:
  void SetUp() override { receive_reset_for_test(); }
};

TEST_F(RouterMessageTest, WorkedFramesEncodeAndDecode) {
  struct Case {
    const char* name;
    router_message msg;
    std::string bytes;
    const char* decoded;  // what the parser makes of bytes
  };
  const Case cases[] = {
      {"QD", make_router_request("QD"), "\x01N0QDED\x04", "[OK] request=QD protocol=N seq=0 "},
      {"BK", make_router_request("BK"), "\x01N0BKF5\x04", "[OK] request=BK protocol=N seq=0 "},
      {"BK F", make_router_request("BK", {"F"}), "\x01N0BK\tFA6\x04",
       "[OK] request=BK protocol=N seq=0 param=F"},
      {"TI 1 A", make_router_request("TI", {"1", "A"}), "\x01N0TI\t1\tA61\x04",
       "[OK] request=TI protocol=N seq=0 param=1,A"},
      {"NAK 5", with_flags(false, true, 5), "\x15" "0005\x04",
       "[NAK] request= protocol=~ seq=0 nakerr=0005 "},
      {"ACK", with_flags(true, false, -1), "\x06", "[OK] [ACK] request= protocol=~ seq=0 "},
      {"ER 00 QD", make_router_request("ER", {"00", "QD"}), "\x01N0ER\t00\tQDE4\x04",
       "[OK] request=ER protocol=N seq=0 nakerr=0000 param=00,QD"},
      {"empty parameter then X", make_router_request("TI", {"", "X"}), "\x01N0TI\t\tX7B\x04",
       "[OK] request=TI protocol=N seq=0 param=,X"},
      {"ACK wins over NAK", with_flags(true, true, 5), "\x06",
       "[OK] [ACK] request= protocol=~ seq=0 "},
      {"NAK keeps the low 16 bits", with_flags(false, true, 0x12345), "\x15" "2345\x04",
       "[NAK] request= protocol=~ seq=0 nakerr=2345 "},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.bytes, encoded(c.msg));
    EXPECT_EQ(c.decoded, printable_description(decoded(c.bytes)));
  }
  // NAK with the code -1 is written as FFFF.
  EXPECT_EQ("\x15" "FFFF\x04", encoded(with_flags(false, true, -1)));
}

TEST_F(RouterMessageTest, ParametersFitThroughExactly1015Bytes) {
  // SOH, four header bytes and a TAB come before the parameter.
  const std::string longest = encoded(make_router_request("TI", {std::string(1009, 'x')}));
  EXPECT_EQ(1018u, longest.size());
  EXPECT_EQ("<fails>", encoded(make_router_request("TI", {std::string(1010, 'x')})));
  EXPECT_EQ("<fails>", encoded(make_router_request("TI", {std::string(1000, 'x'), "123456789"})));
  // A failed encoding leaves no frame text.
  router_frame frame;
  frame.fill('#');
  EXPECT_FALSE(encode_router_frame(make_router_request("TI", {std::string(2000, 'x')}), frame));
  EXPECT_EQ('\0', frame[0]);

  // The limit leaves room for one more separator after a full frame, no more.
  EXPECT_EQ(1019u, encoded(make_router_request("TI", {std::string(1009, 'x'), ""})).size());
  EXPECT_EQ("<fails>", encoded(make_router_request("TI", {std::string(1009, 'x'), "", ""})));
  EXPECT_EQ("<fails>", encoded(make_router_request("TI", std::vector<std::string>(3000))));
}

TEST_F(RouterMessageTest, DescriptionOfClearedRecordAndLogLine) {
  router_message m;
  m.protocol = 'N';
  EXPECT_EQ("request= protocol=N seq=0 ", describe_router_message(m));
  m.err = true;
  m.nakerr = 0x1A;
  EXPECT_EQ("[ERR] request= protocol=N seq=0 nakerr=001a ", describe_router_message(m));

  // A NUL protocol byte ends the printed description early.
  const router_message ack = decoded("\x06");
  EXPECT_EQ("<DBG>Router message(raw): '' [OK] [ACK] request= protocol=\n",
            capture_stderr([&] { log_router_message(ack); }));
  m = decoded("\x01N0ER\t00\tQDE4\x04");
  EXPECT_EQ(
      "<DBG>Router message(raw): 'N0ER\t00\tQDE4' [OK] request=ER protocol=N seq=0 nakerr=0000 "
      "param=00,QD\n",
      capture_stderr([&] { log_router_message(m); }));
}

TEST_F(RouterMessageTest, ResetEqualsDefault) {
  router_message m = make_router_request("ER", {"0A", "QD"});
  m.seq = '1';
  m.ok = m.ack = m.nak = m.err = true;
  m.nakerr = 10;
  m.raw = "junk";
  reset_router_message(m);
  // The description shows every field but raw and the bytes after a NUL.
  const router_message fresh;
  EXPECT_EQ(describe_router_message(fresh), describe_router_message(m));
  EXPECT_EQ(0, std::memcmp(fresh.request, m.request, sizeof m.request));
  EXPECT_EQ(fresh.raw, m.raw);
}

}  // namespace

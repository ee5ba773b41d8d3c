// The switcher link: frames both ways against bytes written by hand, then a
// real peer on 127.0.0.1 for connecting, the watchdog and exchanges.
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <string>
#include <vector>

#include "base/flags.h"
#include "router/connection.h"
#include "router/exchange.h"
#include "router/receive.h"
#include "support/scripted_switcher.h"
#include "router/link_texts.h"

namespace {

constexpr us_time_t twenty_one_s = 21'000'000;

router_message with_flags(bool ack, bool nak, std::int32_t nakerr) {
  router_message m;
  m.ack = ack;
  m.nak = nak;
  m.nakerr = nakerr;
  return m;
}

std::string encoded(const router_message& m) {
  router_frame frame;
  return encode_router_frame(m, frame) ? std::string(frame.data()) : "<fails>";
}

// Where the kernel decides how a loopback connect ends, got is one of the
// texts in options.
void expect_one_of(const std::vector<std::string>& options, const std::string& got) {
  EXPECT_NE(options.end(), std::find(options.begin(), options.end(), got)) << got;
}

// The line the parser writes for a command frame: its body and checksum.
std::string msg_line(const std::string& body) {
  const std::string f = framed(body);
  return "<DBG>Router: MSG " + f.substr(1, f.size() - 2) + "\n";
}

// Feeds bytes in one piece or one byte per call; returns the lines written.
std::string feed(const std::string& bytes, bool bytewise = false) {
  return stderr_of([&] {
    if (!bytewise) {
      receive_bytes(bytes.data(), bytes.size());
      return;
    }
    for (char c : bytes) receive_bytes(&c, 1);
  });
}

// The descriptions of every queued message joined by '|', NUL shown as '~'.
std::string take_all() {
  std::string out;
  while (!received_queue_empty()) {
    out += (out.empty() ? "" : "|") + describe_router_message(connection_recvmsg());
  }
  std::replace(out.begin(), out.end(), '\0', '~');
  return out;
}

class RouterFrameTest : public SwitcherTest {};

// Encoding; the decoding of the same bytes is in LinesMessagesAndDrops.
// Parameters fit through exactly 1015 bytes.
TEST_F(RouterFrameTest, WorkedFramesEncode) {
  const std::pair<router_message, std::string> cases[] = {
      {make_router_request("BK", {"F"}), "\x01N0BK\tFA6\x04"},
      {make_router_request("TI", {"", "X"}), "\x01N0TI\t\tX7B\x04"},
      {with_flags(false, true, 5), "\x15" "0005\x04"},
      {with_flags(true, false, -1), "\x06"},
      // ACK wins over NAK; a NAK code keeps its low 16 bits.
      {with_flags(true, true, 5), "\x06"},
      {with_flags(false, true, 0x12345), "\x15" "2345\x04"},
      {with_flags(false, true, -1), "\x15" "FFFF\x04"},
  };
  for (const auto& [msg, bytes] : cases) EXPECT_EQ(bytes, encoded(msg));
  // With nothing queued the record is a cleared one.
  router_message none = connection_recvmsg();
  none.protocol = 'N';
  EXPECT_EQ("request= protocol=N seq=0 ", describe_router_message(none));
  // SOH, four header bytes and a TAB come before the first parameter.
  EXPECT_EQ(1018u, encoded(make_router_request("TI", {std::string(1009, 'x')})).size());
  EXPECT_EQ("<fails>", encoded(make_router_request("TI", {std::string(1010, 'x')})));
  router_frame frame;
  frame.fill('#');
  EXPECT_FALSE(encode_router_frame(make_router_request("TI", strings(3000)), frame));
  EXPECT_EQ('\0', frame[0]);  // no frame text left behind
}

// Each case is fed whole, then byte by byte: both give the same lines and the
// same messages.
TEST_F(RouterFrameTest, LinesMessagesAndDrops) {
  struct Case {
    std::string bytes;
    std::string lines;
    std::string decoded;  // descriptions of the messages queued, joined by '|'
  };
  const std::string longest = framed(std::string(4094, 'A'));
  const Case cases[] = {
      {"\x06", "<DBG>Router: ACK\n", "[OK] [ACK] request= protocol=~ seq=0 "},
      {"\x01N0QDed\x04", "<DBG>Router: MSG N0QDed\n", "[OK] request=QD protocol=N seq=0 "},
      {"\x01" "00\x04", "<DBG>Router: MSG 00\n", "[OK] request= protocol=0 seq=0 "},
      {longest, "<DBG>Router: MSG " + longest.substr(1, 4096) + "\n",
       "[OK] request=AA protocol=A seq=A "},
      {framed("N0ER\tZZ"), msg_line("N0ER\tZZ"),
       "[OK] request=ER protocol=N seq=0 nakerr=0000 param=ZZ"},
      {framed("N0ER\t0A"), msg_line("N0ER\t0A"),
       "[ERR] request=ER protocol=N seq=0 nakerr=000a param=0A"},
      {framed("N0ER\t"), msg_line("N0ER\t"),
       "[ERR] request=ER protocol=N seq=0 "},  // a final TAB opens nothing
      {"\x15\x04", "<DBG>Router: NAK \n", "[NAK] request= protocol=~ seq=0 nakerr=0000 "},
      {"\x15" "ffffx\x04", "<DBG>Router: NAK ffffx\n",
       "[NAK] request= protocol=~ seq=0 nakerr=ffff "},
      {"\x15" "FFFFFFFFF\x04", "<DBG>Router: NAK FFFFFFFFF\n",
       "[NAK] request= protocol=~ seq=0 "},  // wraps to -1
      {framed("N0ER\t00\tQD") + "\x06" + framed("N1TIxyz\t1\t"),  // in arrival order
       msg_line("N0ER\t00\tQD") + "<DBG>Router: ACK\n" + msg_line("N1TIxyz\t1\t"),
       "[OK] request=ER protocol=N seq=0 nakerr=0000 param=00,QD|[OK] [ACK] request= protocol=~ "
       "seq=0 |[OK] request=TI protocol=N seq=1 param=1"},
      {framed("N0TI\t\t"), msg_line("N0TI\t\t"), "[OK] request=TI protocol=N seq=0 param="},
      // Error paths follow.
      {"\r\x04", "Discarding unexpected byte 0d\nDiscarding unexpected byte 04\n", ""},
      {std::string("\x01N0\0", 4) + framed("N0QD"),  // a NUL, and the EOT lost
       "<WARN>Unexpected NUL in response from router switcher, ignoring response\n", ""},
      {"\x01" "A\x04", "<DBG>Router: MSG A\n<DBG>Message rejected, no checksum field\n", ""},
      {"\x01N0QDZZ\x04",
       "<DBG>Router: MSG N0QDZZ\n<DBG>Message rejected, invalid checksum (want=00 got=ed)\n", ""},
      {"\x01" + std::string(4097, 'A') + "\x04",
       "<WARN>Over-long rambling response from router switcher\nDiscarding unexpected byte 04\n",
       ""},
  };
  for (const Case& c : cases) {
    for (bool bytewise : {false, true}) {
      SCOPED_TRACE(c.bytes.substr(0, 20) + (bytewise ? " byte by byte" : ""));
      EXPECT_EQ(c.lines, feed(c.bytes, bytewise));
      EXPECT_EQ(c.decoded, take_all());
      EXPECT_FALSE(receive_in_progress());
    }
  }
}

// "QN:A,B" for each message of a response, joined by blanks.
std::string summary(const std::vector<router_message>& response) {
  std::string out;
  for (const router_message& m : response) {
    out += (out.empty() ? "" : " ") + std::string(m.request, strnlen(m.request, 2)) + ':';
    for (std::size_t i = 0; i < m.parameters.size(); ++i) out += (i ? "," : "") + m.parameters[i];
  }
  return out;
}

// At the first wait cycle, a parent request served while waiting runs an
// exchange of its own.
std::vector<router_message> nested_response;
void step_then_nested_request() {
  switcher_step();
  if (sw.steps != 1) return;
  router_message inner = make_router_request("QI", {"1"});
  EXPECT_TRUE(do_timeout_send_and_recv(inner, nested_response, monotonic_now_us() + 2'000'000));
}

class RouterLinkTest : public SwitcherTest {};

// The watchdog closes the link, dropping a half-received message: the next
// connection's first frame decodes on its own.
TEST_F(RouterLinkTest, ConnectThenWatchdog) {
  // Loopback completes a connect within the first check, or at once.
  expect_one_of({std::string(link_trying) + link_connected, link_connected_at_once},
                switcher_link_up());
  EXPECT_TRUE(flag_is_set(process_flag::sync_needed));
  // No frame leaves while a connect is still in progress.
  connection_set_connect_in_progress_for_test(true);
  router_message msg = make_router_request("BK");
  EXPECT_FALSE(connection_ready());
  EXPECT_FALSE(connection_sendmsg(msg));
  EXPECT_FALSE(connection_tx_pending());
  // The link step finishes it.
  EXPECT_EQ(link_connected, stderr_of(connection_poll));
  EXPECT_TRUE(connection_ready());

  EXPECT_EQ("", stderr_of(connection_poll));
  // One message is a sign of life: the watchdog starts over.
  connection_set_last_activity_for_test(monotonic_now_us() - twenty_one_s);
  ASSERT_TRUE(write_all(sw.fd, framed("N0QD")));
  EXPECT_EQ(msg_line("N0QD"), stderr_of(connection_poll));
  EXPECT_EQ("[OK] request=QD protocol=N seq=0 ", take_all());
  ASSERT_TRUE(write_all(sw.fd, "\x01N0BK"));
  stderr_of(connection_poll);
  EXPECT_TRUE(receive_in_progress());
  connection_set_last_activity_for_test(monotonic_now_us() - twenty_one_s);
  EXPECT_EQ(std::string("<WARN>Connection timeout\n") + link_closed,
            stderr_of(connection_poll));
  EXPECT_FALSE(connection_is_open() || flag_is_set(process_flag::sync_needed));
  EXPECT_FALSE(receive_in_progress());
  EXPECT_EQ("", connection_recvmsg().raw);  // nothing to read without a socket
  EXPECT_EQ("", read_for(sw.fd, 1, 100));  // nothing was sent
  switcher_link_up();
  ASSERT_TRUE(write_all(sw.fd, framed("N0QD")));
  stderr_of(connection_poll);
  EXPECT_EQ("[OK] request=QD protocol=N seq=0 ", take_all());
}

// Every failed attempt is logged once and closes what it opened; the next
// starts 5 s after it (as after any attempt: one timer for all), and none
// starts without an address.
TEST_F(RouterLinkTest, FailedAttemptsRetriedEveryFiveSeconds) {
  const std::string closed = link_closed;
  const auto refused = [](const char* text) { return link_text(text, "Connection refused"); };
  struct Case {
    const char* name;
    std::string address;
    std::int32_t port;
    bool no_descriptors;  // every descriptor number is taken
    strings lines;        // the lines of one attempt: any of these
  };
  tcp_listener gone = listen_loopback();  // bound, then closed: nothing listens there
  close_fd(gone.fd);
  const Case cases[] = {
      {"refused", "127.0.0.1", gone.port, false,
       {link_trying + refused(link_connect_failed) + closed,
        refused(link_cannot_connect) + closed}},
      {"host name", "localhost", sw.listener.port, false,
       {"<ERR>Cannot connect, cannot parse IP address\n"}},
      {"no socket", "127.0.0.1", sw.listener.port, true,
       {"<ERR>Cannot connect, cannot create socket\n"}},
      {"no address", "", sw.listener.port, false, {""}},
  };
  // The limit goes on inside the capture, which needs a descriptor of its own.
  const auto attempt = [](bool no_descriptors) {
    return stderr_of([no_descriptors] {
      rlimit saved{};
      getrlimit(RLIMIT_NOFILE, &saved);
      if (no_descriptors) {
        const int lowest_free = dup(0);
        close(lowest_free);
        rlimit none = saved;
        none.rlim_cur = static_cast<rlim_t>(lowest_free);
        setrlimit(RLIMIT_NOFILE, &none);
      }
      connection_connect();
      for (int i = 0; i < 1000 && connection_is_open(); ++i) connection_connect();
      setrlimit(RLIMIT_NOFILE, &saved);
    });
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    stderr_of(connection_reset_for_test);
    connection_set_target_for_test(c.address, c.port);
    const us_time_t before = monotonic_now_us();
    expect_one_of(c.lines, attempt(c.no_descriptors));
    EXPECT_FALSE(connection_is_open() || flag_is_set(process_flag::sync_needed));
    const us_time_t next = connection_next_connect_time_for_test();
    if (c.address.empty()) {
      EXPECT_EQ(0u, next);
      continue;
    }
    EXPECT_LE(before + 5'000'000, next);
    EXPECT_GE(monotonic_now_us() + 5'000'000, next);
    EXPECT_EQ("", attempt(false));
    connection_set_next_connect_time_for_test(monotonic_now_us());
    expect_one_of(c.lines, attempt(c.no_descriptors));
  }
}

// A port below 1 means the switcher's default; a larger one keeps its low 16
// bits. The listeners sit on 127.0.0.3, apart from other loopback users.
TEST_F(RouterLinkTest, PortBelowOneMeansTheDefault) {
  tcp_listener other = listen_loopback("127.0.0.3");
  tcp_listener standard = listen_loopback("127.0.0.3", default_router_port);
  ASSERT_GE(other.fd, 0);
  ASSERT_GE(standard.fd, 0) << "127.0.0.3:12345 is taken";
  const std::pair<std::int32_t, const tcp_listener*> cases[] = {
      {-1, &standard}, {0, &standard}, {-5, &standard}, {0x10000 + other.port, &other}};
  for (const auto& [port, listener] : cases) {
    SCOPED_TRACE(port);
    stderr_of(connection_reset_for_test);
    connection_set_target_for_test("127.0.0.3", port);
    stderr_of([] {
      for (int i = 0; i < 2000 && !connection_ready(); ++i) connection_connect();
    });
    int peer = accept_within(*listener, 2000);
    EXPECT_GE(peer, 0);
    close_fd(peer);
  }
  close_fd(other.fd);
  close_fd(standard.fd);
}

// A peer that resets or ends the connection, seen by a read or by a write.
TEST_F(RouterLinkTest, BrokenConnectionIsLoggedAndClosed) {
  const std::string closed = link_closed;
  const std::string reset = "<NOTE>Connection problem, Connection reset by peer\n" + closed;
  struct Case {
    const char* name;
    bool abort;  // reset instead of an orderly end
    bool write;  // seen by a write, not a read
    std::string lines;
  };
  const Case cases[] = {
      {"reset seen by a read", true, false, reset},
      {"reset seen by a write", true, true, reset},
      {"end seen by a read", false, false, "<NOTE>Connection suddenly dropped\n" + closed},
  };
  std::signal(SIGPIPE, SIG_IGN);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    stderr_of(connection_reset_for_test);
    connection_set_target_for_test("127.0.0.1", sw.listener.port);
    switcher_link_up();
    if (c.abort) {
      const linger now{1, 0};
      setsockopt(sw.fd, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    }
    close_fd(sw.fd);
    EXPECT_EQ(c.lines, stderr_of([&c] { c.write ? connection_queue_and_write("x", 1) : connection_poll(); }));
    EXPECT_FALSE(connection_is_open() || flag_is_set(process_flag::sync_needed));
  }
}

// A write the socket takes only in part keeps the rest, and later writes
// send it ahead of newer frames.
TEST_F(RouterLinkTest, PartialWriteIsCompletedInOrder) {
  switcher_link_up();
  std::string blob(8 << 20, '\0');
  for (std::size_t i = 0; i < blob.size(); ++i) blob[i] = static_cast<char>('a' + i % 23);
  connection_queue_and_write(blob.data(), blob.size());
  ASSERT_TRUE(connection_tx_pending());
  router_message msg = make_router_request("QD");
  EXPECT_EQ("<DBG>Send to router: \x01N0QDED\x04\n",
            stderr_of([&] { EXPECT_TRUE(connection_sendmsg(msg)); }));
  std::string heard;
  const std::size_t total = blob.size() + 8;
  for (int i = 0; i < 20000 && heard.size() < total; ++i) {
    heard += read_for(sw.fd, 1, 10);
    connection_poll();
  }
  EXPECT_FALSE(connection_tx_pending());
  ASSERT_EQ(total, heard.size());
  EXPECT_TRUE(heard.compare(0, blob.size(), blob) == 0);
  EXPECT_EQ("\x01N0QDED\x04", heard.substr(blob.size()));
}

TEST_F(RouterLinkTest, RepliesEndAsTheirSequenceFlagsSay) {
  struct Case {
    const char* name;
    const char* request;
    strings replies;
    const char* response;
  };
  const Case cases[] = {
      {"one message", "BK", {framed("N0BK\tF")}, "BK:F"},
      {"run closed by flag 0, ACK ignored", "QN",
       {framed("N1QN\tA"), "", framed("N1QN\tB") + framed("N1QN\tC"), "\x06",
        framed("N0QN\tD") + framed("N0QN\tE")},
       "QN:A QN:B QN:C QN:D"},
      {"another command ends the run", "QN", {framed("N1QN\tA"), framed("N1DQ\t1")}, "QN:A DQ:1"},
      {"another protocol ends the run", "QN", {framed("N1QN\tA"), framed("X1QN\tB")},
       "QN:A QN:B"},
      {"an error ends the run", "QN", {framed("N1QN\tA"), framed("N1ER\t05")}, "QN:A ER:05"},
      {"NAK ends the reply", "TI", {"\x15" "0002\x04"}, ":"},
      {"ER naming QD answers QD", "QD", {framed("N0ER\t00\tQD"), framed("N0BK")}, "ER:00,QD"},
      {"failed ER is never stale", "BK", {framed("N0ER\t05\tQD"), framed("N0BK")}, "ER:05,QD"},
      {"stale status ER skipped", "BK", {framed("N0ER\t00\tQD"), framed("N0BK")}, "BK:"},
      {"ER naming nothing is the reply", "BK", {framed("N0ER\t00"), framed("N0BK")}, "ER:00"},
      // Last: a parent request served while waiting runs an exchange of its own.
      {"nested", "BK", {"", framed("N0IQ\t1\t5"), framed("N0BK")}, "BK:"},
  };
  switcher_link_up();
  sw.answer_rest = false;  // the switcher answers only what a case scripts in sw.replies
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    sw.replies = c.replies;
    sw.steps = sw.parsed = 0;
    sw.raw.clear();
    if (std::string(c.name) == "nested") set_parent_poll_handler(step_then_nested_request);
    router_message request = make_router_request(c.request);
    std::vector<router_message> response;
    const std::string lines = stderr_of([&] {
      EXPECT_TRUE(do_timeout_send_and_recv(request, response, monotonic_now_us() + 2'000'000));
    });
    EXPECT_EQ(c.response, summary(response)) << lines;
    EXPECT_TRUE(connection_is_open());
  }
  EXPECT_EQ("IQ:1,5", summary(nested_response));
  EXPECT_EQ("\x01N0BKF5\x04" + framed("N0QI\t1"), sw.raw);
}

}  // namespace

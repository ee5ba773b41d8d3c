#include "router/exchange.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <string>
#include <vector>

#include "router/router_fixture.h"

namespace {

// The switcher's side of an exchange, played from the parent-poll handler that
// every wait cycle calls: cycle n writes replies[n - 1] after recording what
// arrived. With nested set, the first cycle serves a "parent request" that
// runs an exchange of its own, as the command dispatcher may.
struct peer_script {
  int fd = -1;
  std::vector<std::string> replies;
  std::size_t calls = 0;
  std::string heard;
  bool nested = false;
  bool nested_result = false;
  std::vector<router_message> nested_response;
};
peer_script script;

void play_script() {
  const std::size_t call = ++script.calls;
  char buf[4096];
  for (ssize_t n; (n = recv(script.fd, buf, sizeof buf, MSG_DONTWAIT)) > 0;) {
    script.heard.append(buf, static_cast<std::size_t>(n));
  }
  if (call == 1 && script.nested) {
    router_message inner = make_router_request("QI", {"1"});
    script.nested_result = do_timeout_send_and_recv(inner, script.nested_response,
                                                    monotonic_now_us() + 2000000);
    return;
  }
  if (call <= script.replies.size()) write_all(script.fd, script.replies[call - 1]);
}

// "QN:A,B" for each message of a response, joined by blanks.
std::string summary(const std::vector<router_message>& response) {
  std::string out;
  for (const router_message& m : response) {
    if (!out.empty()) out += ' ';
    out += std::string(m.request, strnlen(m.request, 2)) + ':';
    for (std::size_t i = 0; i < m.parameters.size(); ++i) {
      out += (i > 0 ? "," : "") + m.parameters[i];
    }
  }
  return out;
}

class ExchangeTest : public RouterLinkTest {
 protected:
  void SetUp() override {
    RouterLinkTest::SetUp();
    script = peer_script{};
    set_parent_poll_handler(play_script);
  }
  void TearDown() override {
    set_parent_poll_handler(nullptr);
    RouterLinkTest::TearDown();
  }

  // Sends request and returns its result; lines written go to lines_.
  bool Exchange(router_message request, us_time_t within_us) {
    script.fd = peer_;
    script.calls = 0;
    script.heard.clear();
    bool ok = false;
    lines_ = capture_stderr([&] {
      ok = do_timeout_send_and_recv(request, response_, monotonic_now_us() + within_us);
    });
    return ok;
  }

  std::vector<router_message> response_;
  std::string lines_;
};

TEST_F(ExchangeTest, RepliesEndAsTheirSequenceFlagsSay) {
  struct Case {
    const char* name;
    const char* request;
    std::vector<std::string> replies;
    const char* response;
  };
  const Case cases[] = {
      {"one message", "BK", {framed("N0BK\tF")}, "BK:F"},
      {"run closed by flag 0, ACK ignored",
       "QN",
       {framed("N1QN\tA"), "", framed("N1QN\tB") + framed("N1QN\tC"), "\x06", framed("N0QN\tD"),
        framed("N0QN\tE")},
       "QN:A QN:B QN:C QN:D"},
      {"another command ends the run", "QN", {framed("N1QN\tA"), framed("N1DQ\t1")}, "QN:A DQ:1"},
      {"NAK ends the reply", "TI", {"\x15" "0002\x04"}, ":"},
      {"stale status ER skipped", "BK", {framed("N0ER\t00\tQD"), framed("N0BK")}, "BK:"},
      {"ER naming QD answers QD", "QD", {framed("N0ER\t00\tQD"), framed("N0BK")}, "ER:00,QD"},
      {"failed ER is never stale", "BK", {framed("N0ER\t05\tQD"), framed("N0BK")}, "ER:05,QD"},
  };
  Connect();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    script.replies = c.replies;
    EXPECT_TRUE(Exchange(make_router_request(c.request), 2000000)) << lines_;
    EXPECT_EQ(c.response, summary(response_));
    EXPECT_TRUE(connection_is_open());
  }
  // What the last exchange sent, and its line.
  EXPECT_EQ("\x01N0BKF5\x04", script.heard);
  EXPECT_NE(std::string::npos, lines_.find("<DBG>Send to router: \x01N0BKF5\x04\n"));
}

TEST_F(ExchangeTest, MessagesQueuedBeforeTheRequestAreDrained) {
  Connect();
  ASSERT_TRUE(write_all(peer_, framed("N0DQ\t1") + framed("N0DQ\t2")));
  capture_stderr([] { PollUntil([] { return !received_queue_empty(); }); });
  ASSERT_FALSE(received_queue_empty());
  script.replies = {framed("N0BK")};
  EXPECT_TRUE(Exchange(make_router_request("BK"), 2000000));
  EXPECT_EQ("BK:", summary(response_));
}

TEST_F(ExchangeTest, SilenceTimesOutAndCloses) {
  Connect();
  script.replies = {framed("N1QN\tA")};
  const us_time_t start = monotonic_now_us();
  EXPECT_FALSE(Exchange(make_router_request("QN"), 200000));
  EXPECT_GE(monotonic_now_us() - start, 200000u);
  EXPECT_EQ("QN:A", summary(response_));  // the part collected is kept
  EXPECT_NE(std::string::npos,
            lines_.find("<ERR>Timeout receiving message\n<NOTE>Connection to router closed\n"));
  EXPECT_FALSE(connection_is_open());
}

TEST_F(ExchangeTest, ParentRequestServedWhileWaiting) {
  Connect();
  script.nested = true;
  script.replies = {"", framed("N0IQ\t1\t5"), framed("N0BK")};
  EXPECT_TRUE(Exchange(make_router_request("BK"), 2000000));
  EXPECT_EQ("BK:", summary(response_));
  EXPECT_TRUE(script.nested_result);
  EXPECT_EQ("IQ:1,5", summary(script.nested_response));
  EXPECT_EQ("\x01N0BKF5\x04" + framed("N0QI\t1"), script.heard);
}

TEST_F(ExchangeTest, UnsendableMessageClosesTheLink) {
  EXPECT_FALSE(Exchange(make_router_request("BK"), 2000000));
  EXPECT_EQ("<ERR>Unable to send message\n", lines_);

  Connect();
  EXPECT_FALSE(Exchange(make_router_request("TI", {std::string(1010, 'x')}), 2000000));
  EXPECT_EQ("<ERR>Unable to send message\n<NOTE>Connection to router closed\n", lines_);
  EXPECT_FALSE(connection_is_open());
  EXPECT_EQ("", read_for(peer_, 1, 100));
}

}  // namespace

// The synchronisation and status polling against a scripted switcher on a
// loopback socket: what reaches the wire, what is learned and logged, and
// what happens when a step fails.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "base/config.h"
#include "base/flags.h"
#include "model/tables.h"
#include "parent/channel.h"
#include "router/connection.h"
#include "router/exchange.h"
#include "router/receive.h"
#include "service/route_queue.h"
#include "support/tcp_peer.h"
#include "sync/polling.h"
#include "sync/sync.h"

namespace {

using strings = std::vector<std::string>;

// One frame as the switcher sends it.
std::string frame(const char* letters, const strings& params, char seq = '0') {
  router_message m = make_router_request(letters, params);
  m.seq = seq;
  router_frame f;
  EXPECT_TRUE(encode_router_frame(m, f));
  return f.data();
}

// The switcher, stepped from the waits' parent-poll handler on the test's own
// thread. Every frame received is noted as its letters and parameters
// ("BK I 15") and answered with answers[] for it, else "ER 00 <letters>".
struct scripted_switcher {
  tcp_listener listener;
  int fd = -1;
  std::string raw;  // received, not yet split into frames
  strings heard;
  std::map<std::string, std::string> answers;
  std::string silent_on;      // left unanswered
  std::string close_after;    // answered; the backend's link is closed at the next step
  std::string hang_up_after;  // answered; then the switcher hangs up
  bool close_now = false;
} sw;

void switcher_step() {
  if (sw.close_now) {
    sw.close_now = false;
    connection_close();
    return;
  }
  char buf[4096];
  for (ssize_t n; sw.fd >= 0 && (n = recv(sw.fd, buf, sizeof buf, MSG_DONTWAIT)) > 0;) {
    sw.raw.append(buf, static_cast<std::size_t>(n));
  }
  for (std::size_t end; (end = sw.raw.find(eot)) != std::string::npos; sw.raw.erase(0, end + 1)) {
    std::string text = sw.raw.substr(3, end - 5);  // letters and parameters
    std::replace(text.begin(), text.end(), tab, ' ');
    sw.heard.push_back(text);
    if (text == sw.silent_on) continue;
    const auto it = sw.answers.find(text);
    write_all(sw.fd, it != sw.answers.end() ? it->second : frame("ER", {"00", text.substr(0, 2)}));
    if (text == sw.close_after) sw.close_now = true;
    if (text == sw.hang_up_after) close_fd(sw.fd);
  }
}

// The lines of log that start with one of the prefixes.
std::string lines_starting(const std::string& log, const strings& prefixes) {
  std::istringstream in(log);
  std::string out;
  for (std::string line; std::getline(in, line);) {
    for (const std::string& p : prefixes) {
      if (line.compare(0, p.size(), p) == 0) {
        out += line + "\n";
        break;
      }
    }
  }
  return out;
}

class SynchronisationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    reset_configuration();
    reset_process_flags();
    reset_router_tables();
    reset_route_queues();
    testing::internal::CaptureStderr();
    connection_reset_for_test();
    (void)testing::internal::GetCapturedStderr();
    receive_reset_for_test();
    set_next_status_poll(0);
    sw = scripted_switcher{};
    sw.listener = listen_loopback();
    ASSERT_GE(sw.listener.fd, 0);
    connection_set_target_for_test("127.0.0.1", sw.listener.port);
    ASSERT_EQ(0, pipe2(in_, O_NONBLOCK));
    ASSERT_EQ(0, pipe2(out_, O_NONBLOCK));
    parent_channel_use_fds_for_test(in_[0], out_[1]);
    set_parent_poll_handler(switcher_step);
  }
  void TearDown() override {
    set_parent_poll_handler(nullptr);
    testing::internal::CaptureStderr();
    connection_reset_for_test();
    (void)testing::internal::GetCapturedStderr();
    parent_channel_use_fds_for_test(0, 1);
    close_fd(sw.fd);
    close_fd(sw.listener.fd);
    for (int fd : {in_[0], in_[1], out_[0], out_[1]}) close(fd);
  }

  // A new connection in place of any open one, accepted by the switcher;
  // sync_needed is raised.
  static void LinkUp() {
    testing::internal::CaptureStderr();
    connection_close();
    connection_set_next_connect_time_for_test(0);
    for (int i = 0; i < 2000 && !connection_ready(); ++i) connection_connect();
    (void)testing::internal::GetCapturedStderr();
    close_fd(sw.fd);
    sw.fd = accept_within(sw.listener, 2000);
    sw.raw.clear();
    ASSERT_TRUE(connection_ready() && sw.fd >= 0);
  }

  template <typename Fn>
  static std::string StderrOf(Fn f) {
    testing::internal::CaptureStderr();
    f();
    return testing::internal::GetCapturedStderr();
  }

  // Everything written to the parent so far.
  std::string ParentOutput() {
    std::string out;
    char buf[4096];
    for (ssize_t n; (n = read(out_[0], buf, sizeof buf)) > 0;) out.append(buf, n);
    return out;
  }

  int in_[2] = {-1, -1};
  int out_[2] = {-1, -1};
};

const strings whole_sequence = {"BK",      "BK N", "BK R", "BK T",  "BK I 15",
                                "BK E OFF", "BK D", "QN L", "QN IS", "QN ID"};

TEST_F(SynchronisationTest, IdentityTexts) {
  const std::string model_n = frame("KB", {"N", "Test Model"});
  const std::string rev = frame("KB", {"R", "2.1"}), type = frame("KB", {"T", "V5"});
  struct Case {
    const char* name;
    std::map<std::string, std::string> answers;
    const char* model;
    const char* firmware;
  };
  const Case cases[] = {
      {"all three", {{"BK N", model_n}, {"BK R", rev}, {"BK T", type}}, "Test Model", "V5 [2.1]"},
      {"revision only", {{"BK R", rev}}, "", "2.1"},
      {"type only", {{"BK T", type}}, "", "V5"},
      // Error paths follow: unusable answers leave their text empty.
      {"nothing usable", {}, "", ""},
      {"continued model answer",
       {{"BK N", frame("KB", {"N", "A"}, '1') + frame("KB", {"N", "B"})}}, "", ""},
      {"model answer refused", {{"BK N", "\x15" "0001\x04"}}, "", ""},
      {"model answer without text", {{"BK N", frame("KB", {"N"})}}, "", ""},
      {"empty model", {{"BK N", frame("KB", {"N", "", "x"})}}, "", ""},
      {"type answer for another letter", {{"BK R", rev}, {"BK T", frame("KB", {"R", "V5"})}}, "",
       "2.1"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LinkUp();
    sw.answers = c.answers;
    sw.heard.clear();
    const std::string log = StderrOf(initial_sync);
    EXPECT_EQ(whole_sequence, sw.heard);
    EXPECT_EQ(c.model, device_model());
    EXPECT_EQ(c.firmware, firmware_version());
    std::string notes;
    if (*c.model != '\0') notes += "<NOTE>Device is a \"" + std::string(c.model) + "\"\n";
    if (*c.firmware != '\0') notes += "<NOTE>Firmware: " + std::string(c.firmware) + "\n";
    EXPECT_EQ(notes, lines_starting(log, {"<NOTE>Device", "<NOTE>Firmware"}));
  }
}

// A failed step before the names abandons the sequence: nothing after it is
// sent or reported. Failed names queries let it go on, each later exchange
// failing at once on the closed link.
TEST_F(SynchronisationTest, FailedStepsAbandonOrGoOn) {
  const std::string ack = "<DBG>Router BK sync ack\n";
  const std::string closed = "<NOTE>Connection to router closed\n";
  const std::string unsendable = "<ERR>Unable to send message\n";
  struct Case {
    std::string close_after;  // "-": before the handshake is sent
    std::string handshake_answer;
    std::size_t heard;  // frames of the whole sequence sent
    std::string lines;
    bool handed_over;
  };
  // Without a connection there is nothing to synchronise.
  EXPECT_EQ("", StderrOf(initial_sync));
  const Case cases[] = {
      {"", "", 10, ack, true},
      {"", frame("ER", {"05", "BK"}), 10,
       "<DBG>Router BK sync fail\n[ERR] request=ER protocol=N seq=0 nakerr=0005 param=05,BK\n",
       true},
      {"QN L", "", 8, ack + closed + unsendable + unsendable, true},
      // Error paths follow: abandoned.
      {"-", "", 0, closed + unsendable, false},
      {"BK", "", 1, ack + closed + unsendable, false},
      {"BK N", "", 2, ack + closed + unsendable, false},
      {"BK R", "", 3, ack + closed + unsendable, false},
      {"BK T", "", 4, ack + closed + unsendable, false},
      {"BK I 15", "", 5, ack + closed + unsendable, false},
      {"BK E OFF", "", 6, ack + closed + unsendable, false},
      {"BK D", "", 7, ack + closed + unsendable, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.close_after + " " + c.handshake_answer);
    LinkUp();
    (void)ParentOutput();
    sw.heard.clear();
    sw.answers.clear();
    if (!c.handshake_answer.empty()) sw.answers["BK"] = c.handshake_answer;
    sw.close_after = c.close_after;
    sw.close_now = c.close_after == "-";
    const std::string log = StderrOf(initial_sync);
    EXPECT_EQ(strings(whole_sequence.begin(), whole_sequence.begin() + c.heard), sw.heard);
    EXPECT_EQ(c.lines, lines_starting(log, {"<ERR>", "<NOTE>", "<DBG>Router BK", "["}));
    // With no outputs the hand-over reports only the info, and queries no route.
    const std::string out = ParentOutput();
    EXPECT_EQ(c.handed_over, out.find("*COMMAND=info\n*TYPE=message\n") == 0) << out;
    EXPECT_EQ(c.handed_over ? out.size() - 2 : std::string::npos, out.find("\n\n"));
  }
}

class StatusPollingTest : public SynchronisationTest {
 protected:
  void SetUp() override {
    SynchronisationTest::SetUp();
    LinkUp();
    clear_flag(process_flag::sync_needed);
  }
  // Destinations A, B and A numbered from 1, and outputs active of them.
  static void LoadTables(const char* outputs) {
    router_message dests =
        make_router_request("NQ", {"ID", "3", "A", "1", "x", "0", "B", "2", "x", "0", "A", "3",
                                   "x", "0"});
    dests.ok = true;
    (void)StderrOf([&] { update_dest_info({dests}); });
    apply_config_key("outputs", outputs);
    (void)StderrOf(update_active_counts);
  }
  // One pass's polling step with a request due; the frames it sent.
  static strings DueRequest() {
    sw.heard.clear();
    set_next_status_poll(1);
    (void)StderrOf(status_polling_step);
    return sw.heard;
  }
};

TEST_F(StatusPollingTest, ChangeFlagsAndChangedDestinations) {
  const strings plain = {"BK F", "QD"};
  struct Case {
    const char* name;
    std::map<std::string, std::string> answers;
    const char* outputs;
    strings sent;
  };
  const Case cases[] = {
      {"flags 0 still acknowledged", {{"BK F", frame("KB", {"F", "0"})}}, "3",
       {"BK F", "BK f 0", "QD"}},
      {"names of both kinds", {{"BK F", frame("KB", {"F", "14"})}}, "3",
       {"BK F", "QN IS", "QN ID", "BK f 14", "QD"}},
      {"flags beyond 32 bits", {{"BK F", frame("KB", {"F", "1FFFFFFFF"})}}, "3",
       {"BK F", "QN IS", "QN ID", "BK f FFFFFFFF", "QD"}},
      {"one name, two destinations", {{"QD", frame("DQ", {"A", "1"})}}, "3",
       {"BK F", "QD", "QI 1 0", "QI 3 0"}},
      {"continued answer", {{"QD", frame("DQ", {"B", "2"}, '1') + frame("DQ", {"A", "1"})}}, "3",
       {"BK F", "QD", "QI 1 0", "QI 2 0", "QI 3 0"}},
      {"only active outputs", {{"QD", frame("DQ", {"A", "1"})}}, "2", {"BK F", "QD", "QI 1 0"}},
      {"only the switcher's outputs", {{"QD", frame("DQ", {"A", "1"})}}, "5",
       {"BK F", "QD", "QI 1 0", "QI 3 0"}},
      // Error paths follow: unusable answers are ignored.
      {"flags in two messages",
       {{"BK F", frame("KB", {"F", "4"}, '1') + frame("KB", {"F", "4"})}}, "3", plain},
      {"flags answer for another letter", {{"BK F", frame("KB", {"X", "4"})}}, "3", plain},
      {"flags answer without flags", {{"BK F", frame("KB", {"F"})}}, "3", plain},
      {"no destination of that name", {{"QD", frame("DQ", {"Z", "1"})}}, "3", plain},
      {"destination without its number", {{"QD", frame("DQ", {"A"})}}, "3", plain},
      {"destinations query refused", {{"QD", "\x15" "0001\x04"}}, "3", plain},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LoadTables(c.outputs);
    sw.answers = c.answers;
    EXPECT_EQ(c.sent, DueRequest());
    // Rescheduled: the next pass sends nothing.
    sw.heard.clear();
    (void)StderrOf(status_polling_step);
    EXPECT_EQ(strings{}, sw.heard);
  }
}

// A request whose flags or destinations query fails is not rescheduled: the
// first pass on the next connection sends a request at once.
TEST_F(StatusPollingTest, FailedRequestIsNotRescheduled) {
  const std::string closed = "<NOTE>Connection to router closed\n";
  struct Case {
    const char* name;
    std::string silent_on, hang_up_after;
    std::string lines;
  };
  const Case cases[] = {
      {"flags unanswered", "BK F", "", "<ERR>Timeout receiving message\n" + closed},
      {"destinations unsendable", "", "BK f 0",
       "<NOTE>Connection suddenly dropped\n" + closed + "<ERR>Unable to send message\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LoadTables("3");
    sw.answers = {{"BK F", frame("KB", {"F", "0"})}};
    sw.silent_on = c.silent_on;
    sw.hang_up_after = c.hang_up_after;
    set_next_status_poll(1);
    EXPECT_EQ(c.lines, lines_starting(StderrOf(status_polling_step), {"<ERR>", "<NOTE>"}));
    EXPECT_FALSE(connection_is_open());
    sw.silent_on = sw.hang_up_after = "";
    LinkUp();
    clear_flag(process_flag::sync_needed);
    sw.heard.clear();
    (void)StderrOf(status_polling_step);
    EXPECT_EQ((strings{"BK F", "BK f 0", "QD"}), sw.heard);
  }
}

// Unsolicited messages are all taken, only the last of a batch logged, and
// no request goes out while none is due or a synchronisation is pending.
TEST_F(StatusPollingTest, OnlyTheLastUnsolicitedMessageIsLogged) {
  const std::string third = frame("KB", {"F", "3"});
  const std::string logged = "<DBG>Router message(raw): '" + third.substr(1, third.size() - 2) +
                             "' [OK] request=KB protocol=N seq=0 param=F,3\n";
  for (bool due_during_sync : {false, true}) {
    SCOPED_TRACE(due_during_sync ? "due during a synchronisation" : "none due");
    set_next_status_poll(due_during_sync ? 1 : 0);
    if (due_during_sync) raise_flag(process_flag::sync_needed);
    sw.heard.clear();
    ASSERT_TRUE(write_all(sw.fd, frame("KB", {"F", "1"}) + frame("KB", {"F", "2"}) + third));
    EXPECT_EQ(logged, lines_starting(StderrOf(status_polling_step), {"<DBG>Router message"}));
    EXPECT_TRUE(received_queue_empty());
    EXPECT_EQ(strings{}, sw.heard);
  }
  // A link lost before a due request starts sends nothing.
  clear_flag(process_flag::sync_needed);
  set_next_status_poll(1);
  close_fd(sw.fd);
  EXPECT_EQ("<NOTE>Connection suddenly dropped\n<NOTE>Connection to router closed\n",
            StderrOf(status_polling_step));
}

}  // namespace

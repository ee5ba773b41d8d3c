// The synchronisation and status polling against a scripted switcher on a
// loopback socket: what reaches the wire, what is learned and logged, and
// what happens when a step fails.
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "base/config.h"
#include "base/flags.h"
#include "model/tables.h"
#include "router/connection.h"
#include "router/receive.h"
#include "support/scripted_switcher.h"
#include "sync/polling.h"
#include "sync/sync.h"
#include "router/link_texts.h"

namespace {

// The lines of log that start with one of the prefixes.
std::string lines_starting(const std::string& log, const strings& prefixes) {
  std::istringstream in(log);
  std::string out;
  for (std::string line; std::getline(in, line);) {
    const auto starts = [&line](const std::string& p) { return line.rfind(p, 0) == 0; };
    if (std::any_of(prefixes.begin(), prefixes.end(), starts)) out += line + "\n";
  }
  return out;
}

class SynchronisationTest : public SwitcherTest {};

const strings whole_sequence = {"BK",      "BK N", "BK R", "BK T",  "BK I 15",
                                "BK E OFF", "BK D", "QN L", "QN IS", "QN ID"};
const std::string sync_ack = "<DBG>Router BK sync ack\n";

// The identity learned from the answers, or left empty by unusable ones. A
// failed step before the names abandons the sequence: nothing after it is
// sent or reported. Failed names queries let it go on, each later exchange
// failing at once on the closed link.
TEST_F(SynchronisationTest, IdentityTextsAndFailedSteps) {
  const std::string model_n = framed("N0KB\tN\tTest Model");
  const std::string rev = framed("N0KB\tR\t2.1"), type = framed("N0KB\tT\tV5");
  const std::string closed = link_closed;
  const std::string unsendable = "<ERR>Unable to send message\n";
  struct Case {
    std::string name;
    std::map<std::string, std::string> answers = {};
    const char* model = "";
    const char* firmware = "";
    std::string close_after = "";  // "-": before the handshake is sent
    std::size_t heard = 10;        // frames of the whole sequence sent
    std::string lines = sync_ack;  // besides the identity's notes
    bool handed_over = true;
  };
  std::vector<Case> cases = {
      {"all three", {{"BK N", model_n}, {"BK R", rev}, {"BK T", type}}, "Test Model", "V5 [2.1]"},
      {"revision only", {{"BK R", rev}}, "", "2.1"},
      {"type only", {{"BK T", type}}, "", "V5"},
      // Error paths follow: unusable answers leave their text empty.
      {"nothing usable"},
      {"continued model answer", {{"BK N", framed("N1KB\tN\tA") + framed("N0KB\tN\tB")}}},
      {"model answer refused", {{"BK N", "\x15" "0001\x04"}}},
      {"model answer of another command", {{"BK N", framed("N0QK\tN\tX")}}},
      {"model answer without text", {{"BK N", framed("N0KB\tN")}}},
      {"empty model", {{"BK N", framed("N0KB\tN\t\tx")}}},
      {"type answer for another letter", {{"BK R", rev}, {"BK T", framed("N0KB\tR\tV5")}}, "", "2.1"},
      {"handshake failed", {{"BK", framed("N0ER\t05\tBK")}}, "", "", "", 10,
       "<DBG>Router BK sync fail\n[ERR] request=ER protocol=N seq=0 nakerr=0005 param=05,BK\n"},
      {"closed after QN L", {}, "", "", "QN L", 8, sync_ack + closed + unsendable + unsendable},
      // Abandoned, before the handshake or after any step up to "BK D".
      {"closed before the handshake", {}, "", "", "-", 0, closed + unsendable, false},
  };
  for (std::size_t i = 0; i < 7; ++i) {
    cases.push_back({"closed after " + whole_sequence[i], {}, "", "", whole_sequence[i], i + 1,
                     sync_ack + closed + unsendable, false});
  }
  // Without a connection there is nothing to synchronise.
  EXPECT_EQ("", stderr_of(initial_sync));
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    switcher_link_up();
    (void)parent_pipes_output(parent_);
    sw.heard.clear();
    sw.answers = c.answers;
    sw.close_after = c.close_after;
    sw.close_now = c.close_after == "-";
    const std::string log = stderr_of(initial_sync);
    EXPECT_EQ(strings(whole_sequence.begin(), whole_sequence.begin() + c.heard), sw.heard);
    EXPECT_EQ(c.model, device_model());
    EXPECT_EQ(c.firmware, firmware_version());
    std::string notes;
    if (*c.model != '\0') notes += "<NOTE>Device is a \"" + std::string(c.model) + "\"\n";
    if (*c.firmware != '\0') notes += "<NOTE>Firmware: " + std::string(c.firmware) + "\n";
    EXPECT_EQ(c.lines + notes, lines_starting(log, {"<ERR>", "<NOTE>", "<DBG>Router BK", "["}));
    // With no outputs the hand-over reports only the info, and queries no route.
    const std::string out = parent_pipes_output(parent_);
    EXPECT_EQ(c.handed_over, out.find("*COMMAND=info\n*TYPE=message\n") == 0) << out;
    EXPECT_EQ(c.handed_over ? out.size() - 2 : std::string::npos, out.find("\n\n"));
  }
}

class StatusPollingTest : public SynchronisationTest {
 protected:
  void SetUp() override {
    SynchronisationTest::SetUp();
    switcher_link_up();
    clear_flag(process_flag::sync_needed);
  }
  // Destinations A, B and A numbered from 1, and outputs active of them.
  static void LoadTables(const char* outputs) {
    router_message dests =
        make_router_request("NQ", {"ID", "3", "A", "1", "x", "0", "B", "2", "x", "0", "A", "3",
                                   "x", "0"});
    dests.ok = true;
    (void)stderr_of([&] { update_dest_info({dests}); });
    apply_config_key("outputs", outputs);
    (void)stderr_of([] { recompute_active_counts(router_input_count(), router_output_count()); });
  }
};

// A request whose flags or destinations query fails is not rescheduled: the
// first pass on the next connection sends a request at once.
TEST_F(StatusPollingTest, ChangeFlagsChangedDestinationsAndFailures) {
  const strings plain = {"BK F", "QD"};
  const std::string flags_0 = framed("N0KB\tF\t0");
  const std::string closed = link_closed;
  struct Case {
    const char* name;
    std::map<std::string, std::string> answers;
    const char* outputs;
    strings sent;
    std::string silent_on = "";
    std::string hang_up_after = "";
    std::string lines = "";  // errors and notes: any means the request failed
  };
  const Case cases[] = {
      {"flags 0 still acknowledged", {{"BK F", flags_0}}, "3", {"BK F", "BK f 0", "QD"}},
      {"names of both kinds", {{"BK F", framed("N0KB\tF\t14")}}, "3",
       {"BK F", "QN IS", "QN ID", "BK f 14", "QD"}},
      {"flags beyond 32 bits", {{"BK F", framed("N0KB\tF\t1FFFFFFFF")}}, "3",
       {"BK F", "QN IS", "QN ID", "BK f FFFFFFFF", "QD"}},
      {"one name, two destinations", {{"QD", framed("N0DQ\tA\t1")}}, "3",
       {"BK F", "QD", "QI 1 0", "QI 3 0"}},
      {"continued answer", {{"QD", framed("N1DQ\tB\t2") + framed("N0DQ\tA\t1")}}, "3",
       {"BK F", "QD", "QI 1 0", "QI 2 0", "QI 3 0"}},
      {"only active outputs", {{"QD", framed("N0DQ\tA\t1")}}, "2", {"BK F", "QD", "QI 1 0"}},
      {"only the switcher's outputs", {{"QD", framed("N0DQ\tA\t1")}}, "5",
       {"BK F", "QD", "QI 1 0", "QI 3 0"}},
      // Error paths follow: unusable answers are ignored.
      {"flags in two messages",
       {{"BK F", framed("N1KB\tF\t4") + framed("N0KB\tF\t4")}}, "3", plain},
      {"flags answer for another letter", {{"BK F", framed("N0KB\tX\t4")}}, "3", plain},
      {"flags answer without flags", {{"BK F", framed("N0KB\tF")}}, "3", plain},
      {"no destination of that name", {{"QD", framed("N0DQ\tZ\t1")}}, "3", plain},
      {"destination without its number", {{"QD", framed("N0DQ\tA")}}, "3", plain},
      {"destinations query refused", {{"QD", "\x15" "0001\x04"}}, "3", plain},
      {"flags unanswered", {{"BK F", flags_0}}, "3", {"BK F"}, "BK F", "",
       "<ERR>Timeout receiving message\n" + closed},
      {"destinations unsendable", {{"BK F", flags_0}}, "3", {"BK F", "BK f 0"}, "", "BK f 0",
       "<NOTE>Connection suddenly dropped\n" + closed + "<ERR>Unable to send message\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LoadTables(c.outputs);
    sw.answers = c.answers;
    sw.silent_on = c.silent_on;
    sw.hang_up_after = c.hang_up_after;
    sw.heard.clear();
    set_next_status_poll(1);
    EXPECT_EQ(c.lines, lines_starting(stderr_of(status_polling_step), {"<ERR>", "<NOTE>"}));
    EXPECT_EQ(c.sent, sw.heard);
    EXPECT_EQ(c.lines.empty(), connection_is_open());
    if (!connection_is_open()) {
      sw.silent_on = sw.hang_up_after = "";
      switcher_link_up();
      clear_flag(process_flag::sync_needed);
    }
    // Rescheduled: the next pass sends nothing, unless the request failed.
    sw.heard.clear();
    (void)stderr_of(status_polling_step);
    EXPECT_EQ((c.lines.empty() ? strings{} : strings{"BK F", "BK f 0", "QD"}), sw.heard);
  }
}

// Unsolicited messages are all taken, only the last of a batch logged, and
// no request goes out while none is due or a synchronisation is pending.
TEST_F(StatusPollingTest, OnlyTheLastUnsolicitedMessageIsLogged) {
  const std::string third = framed("N0KB\tF\t3");
  const std::string logged = "<DBG>Router message(raw): '" + third.substr(1, third.size() - 2) +
                             "' [OK] request=KB protocol=N seq=0 param=F,3\n";
  for (bool due_during_sync : {false, true}) {
    SCOPED_TRACE(due_during_sync ? "due during a synchronisation" : "none due");
    set_next_status_poll(due_during_sync ? 1 : 0);
    if (due_during_sync) raise_flag(process_flag::sync_needed);
    sw.heard.clear();
    ASSERT_TRUE(write_all(sw.fd, framed("N0KB\tF\t1") + framed("N0KB\tF\t2") + third));
    EXPECT_EQ(logged, lines_starting(stderr_of(status_polling_step), {"<DBG>Router message"}));
    EXPECT_TRUE(received_queue_empty());
    EXPECT_EQ(strings{}, sw.heard);
  }
  // A link lost before a due request starts sends nothing.
  clear_flag(process_flag::sync_needed);
  set_next_status_poll(1);
  close_fd(sw.fd);
  EXPECT_EQ(std::string("<NOTE>Connection suddenly dropped\n") + link_closed,
            stderr_of(status_polling_step));
}

}  // namespace

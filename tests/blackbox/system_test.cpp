// The whole backend against the switcher emulator: the synchronisation on the
// wire, the reports it produces, route changes and renames coming back
// through status polling, and batches nested by a slow switcher (a flush
// served while the backend waits on the switcher).
#include <algorithm>
#include <chrono>
#include <cstdio>

#include "blackbox/system_fixture.h"
#include "router/link_texts.h"

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
            read_record(backend_));
  EXPECT_EQ(
      "*COMMAND=inputs\n*TYPE=message\ni0.name=CAM 1\ni1.name=CAM 2\ni2.name=CAM 3\n"
      "i3.name=CAM 4\n", read_record(backend_));
  EXPECT_EQ("*COMMAND=outputs\n*TYPE=message\no0.name=OUT 1\no1.name=OUT 2\no2.name=OUT 3\n",
            read_record(backend_));
}

// A take goes out in the switcher's numbers and its route comes back through
// status polling, as renames on the switcher's panel do; a run-time address
// change (another spelling of the same address) rebuilds the connection, and
// the end of input closes it.
TEST_F(SystemTest, TakesAndRenamesComeBackAndAddressChangeReconnects) {
  StartEmulator({"--outputs", "4", "--inputs", "8"});
  StartBackend();
  ASSERT_NE("", WaitRecord("o3.name=OUT 4"));
  Send("*COMMAND=route output\n*TYPE=command\n*ID=7\nfrom input=6\nqueue=add\nto output=2\n\n");
  Send("*COMMAND=route output\n*TYPE=command\n*ID=8\nqueue=flush\n\n");
  EXPECT_EQ("*COMMAND=route output\n*TYPE=reply\n*ID=7\n", read_record(backend_));
  // Destination and source are the switcher's numbers: position plus base 1.
  EXPECT_NE("", wait_for_stderr(emu_, "recv TI 3 7"));
  EXPECT_EQ("*COMMAND=route output\n*TYPE=reply\n*ID=8\n", read_record(backend_));
  EXPECT_EQ("*COMMAND=outputs\n*TYPE=message\no2.input.all=6\n", WaitRecord("input.all"));

  child_write(emu_, "rename output 2 Studio B\n");
  EXPECT_EQ("*COMMAND=outputs\n*TYPE=message\no0.name=OUT 1\no1.name=Studio B\no2.name=OUT 3\n"
            "o3.name=OUT 4\n", WaitRecord(".name="));
  child_write(emu_, "rename input 1 Mic\n");
  EXPECT_EQ("*COMMAND=inputs\n*TYPE=message\ni0.name=Mic\ni1.name=CAM 2\ni2.name=CAM 3\n"
            "i3.name=CAM 4\ni4.name=CAM 5\ni5.name=CAM 6\ni6.name=CAM 7\ni7.name=CAM 8\n",
            WaitRecord(".name="));

  Send("*COMMAND=set\n*TYPE=message\nname=ip address\nvalue=127.1\n\n");
  EXPECT_EQ(link_closed, wait_for_stderr(backend_, link_closed));
  EXPECT_NE("", wait_for_stderr(emu_, "client closed"));
  EXPECT_NE("", wait_for_stderr(emu_, "client connected"));
  EXPECT_NE("", wait_for_stderr(emu_, "recv BK N"));
  ASSERT_NE("", WaitRecord("o1.name=Studio B"));
  child_close_input(backend_.child);
  EXPECT_EQ(0, wait_exit(backend_));
  ASSERT_FALSE(backend_.diags.empty());
  EXPECT_EQ(link_closed, backend_.diags.back().text + "\n");
}

// Whatever order batches interleave in, the newest change flushed for an
// output is the last "TI" the switcher receives for it.
std::string RouteOutput(int id, const std::string& fields) {
  return "*COMMAND=route output\n*TYPE=command\n*ID=" + std::to_string(id) + "\n" + fields + "\n";
}

TEST_F(SystemTest, NewestRouteChangeIsTheLastTheSwitcherReceives) {
  // Answers 80 ms late, longer than the 66 ms pacing step: a flush read in
  // the middle of a batch starts a batch of its own at once.
  StartEmulator({"--outputs", "16", "--inputs", "16", "--delay", "80"});
  StartBackend();
  ASSERT_NE("", WaitRecord("o15.name=OUT 16"));

  std::string outer;
  std::vector<std::string> outer_sent;  // one "TI" per output, ascending
  for (int o = 0; o < 16; ++o) {
    outer += RouteOutput(o, "from input=1\nqueue=add\nto output=" + std::to_string(o) + "\n");
    char line[16];
    std::snprintf(line, sizeof line, "TI %X 2", o + 1);
    outer_sent.push_back(line);
  }
  Send(outer + RouteOutput(16, "queue=flush\n"));
  // Read two bytes per wait cycle while the batch waits, these records take
  // several exchanges to arrive, so their flush lands part-way through it.
  Send(RouteOutput(17, "from input=9\nqueue=add\nto output=15\n") +
       RouteOutput(18, "queue=flush\n"));
  ASSERT_NE("", WaitRecord("*ID=16"));  // the outer batch has ended

  std::vector<std::string> seen;
  const std::string& log = emu_.err_buf;  // the emulator's frame log so far
  for (std::size_t at = 0; (at = log.find("recv TI ", at)) != std::string::npos;) {
    const std::size_t end = log.find('\n', at);
    seen.push_back(log.substr(at + 5, end - at - 5));
    at = end;
  }
  const std::string order = testing::PrintToString(seen);
  const auto newer = std::find(seen.begin(), seen.end(), "TI 10 A");
  ASSERT_NE(seen.end(), newer) << order;
  EXPECT_NE(seen.end(), std::find(newer, seen.end(), "TI F 2")) << "did not nest: " << order;
  // Without the newer change, the outer batch as it was flushed, less the
  // slot for output 15 that the newer batch had already sent.
  seen.erase(newer);
  outer_sent.pop_back();
  EXPECT_EQ(outer_sent, seen) << order;

  child_write(emu_, "routes\n");
  std::string route;
  const auto take = [&] { return child_take_line(emu_.out_buf, route); };
  while (child_wait(take, wait_ms) && route.rfind("route 16 ", 0) != 0) {
  }
  EXPECT_EQ("route 16 10", route);

  child_close_input(backend_.child);
  EXPECT_EQ(0, wait_exit(backend_));
}

// The main loop wakes every 50 ms while flushed changes wait for their pacing
// time, and at least every 250 ms otherwise: a change flushed too soon goes
// out soon after its time, and status polls keep their 350 ms interval plus
// at most one wait. The bounds leave a busy machine a hundred milliseconds
// and more; loops waking a second late miss them every time.
TEST_F(SystemTest, MainLoopWakesForPacedChangesAndStatusPolls) {
  using steady = std::chrono::steady_clock;
  const auto ms_since = [](steady::time_point t) {
    return std::chrono::duration<double, std::milli>(steady::now() - t).count();
  };
  StartEmulator({"--outputs", "8", "--inputs", "8"});
  StartBackend();
  ASSERT_NE("", WaitRecord("o7.name=OUT 8"));
  // A status request that ends in a "QD" finding nothing schedules the next
  // 350 ms later, so none runs while the change below waits for its time:
  // one that did would end its pass with the long wait.
  ASSERT_NE("", wait_for_stderr(emu_, "recv QD"));
  // Two commands hold the next batch back until 132 ms after this one's
  // start, and the second flush comes before that.
  Send(RouteOutput(1, "from input=1\nqueue=add\nto output=0\n") +
       RouteOutput(2, "from input=1\nqueue=add\nto output=1\n") + RouteOutput(3, "queue=flush\n") +
       RouteOutput(4, "from input=2\nqueue=add\nto output=7\n") + RouteOutput(5, "queue=flush\n"));
  ASSERT_NE("", wait_for_stderr(emu_, "recv TI 1 2"));
  const steady::time_point first = steady::now();
  EXPECT_NE("", wait_for_stderr(backend_, "<DBG>Route changes too soon, will flush later"));
  ASSERT_NE("", wait_for_stderr(emu_, "recv TI 8 3"));
  const double delayed = ms_since(first);
  EXPECT_GT(delayed, 100);
  EXPECT_LT(delayed, 132 + 200);

  double longest = 0;
  ASSERT_NE("", wait_for_stderr(emu_, "recv BK F"));
  for (int poll = 0; poll < 10; ++poll) {
    const steady::time_point last = steady::now();
    ASSERT_NE("", wait_for_stderr(emu_, "recv BK F", 5000));
    longest = std::max(longest, ms_since(last));
  }
  EXPECT_LT(longest, 1000);
}

}  // namespace

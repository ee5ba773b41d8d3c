// Route changes against a switcher slow enough to make batches nest: whatever
// order the batches interleave in, the newest change flushed for an output is
// the last "TI" the switcher receives for it.
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "blackbox/system_fixture.h"

namespace {

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
  const std::string& log = stderr_so_far(emu_);
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

  ASSERT_TRUE(send_text(emu_, "routes\n"));
  std::string route;
  while (!(route = read_line(emu_, wait_ms)).empty() && route.rfind("route 16 ", 0) != 0) {
  }
  EXPECT_EQ("route 16 10", route);

  close_input(backend_);
  EXPECT_EQ(0, wait_exit(backend_, wait_ms));
}

}  // namespace

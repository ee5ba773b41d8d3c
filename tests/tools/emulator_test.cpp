#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "parent_client/child.h"
#include "parent_client/temp_dir.h"
#include "switcher_emulator/emulator.h"

namespace {

// Each answer as one summary per message, "ER|00|BK", with a leading "+" when
// the message announces continuation, joined by " / ".
TEST(SwitcherEmulatorTest, AnswersEachRequestForm) {
  const std::tuple<const char*, std::vector<std::string>, const char*> cases[] = {
      {"BK", {}, "ER|00|BK"},
      {"BK", {"I", "15"}, "ER|00|BK"},
      {"BK", {"F"}, "KB|F|0"},
      {"QD", {}, "ER|00|QD"},
      {"QI", {"a", "1"}, "IQ|A|1|0|0|A"},
      {"TI", {"10", "1"}, "ER|00|TI"},
      {"UP", {"3"}, "ER|00|UP"},
      // Error paths follow: a request the emulator cannot carry out.
      {"QI", {"11", "0"}, "ER|03|QI"},
      {"ZZ", {}, "ER|01|ZZ"},
      {"TI", {"2", "1"}, "ER|04|TI"},  // 2 is protected by another controller
      {"PR", {"2"}, "ER|04|PR"},
      {"QI", {"2", "0"}, "IQ|2|0|0|1|2"},
  };
  for (const auto& [letters, params, answer] : cases) {
    emulator_config cfg;
    cfg.protected_outputs = {2};
    emulator_state st;
    std::string error;
    ASSERT_TRUE(emulator_init(cfg, st, error)) << error;
    std::string s;
    for (const router_message& m : emulator_answer(cfg, st, make_router_request(letters, params))) {
      s += (s.empty() ? "" : " / ") + std::string(m.seq == '0' ? "" : "+");
      s.append(m.request, strnlen(m.request, 2));
      for (const std::string& p : m.parameters) s += "|" + p;
    }
    EXPECT_EQ(answer, s) << letters << testing::PrintToString(params);
  }
}

// A switcher the emulator cannot be is refused with the reason; so is an
// option it does not know or a value out of range, before it listens.
TEST(SwitcherEmulatorSetUpTest, RefusesWhatNoSwitcherIs) {
  temp_dir dir;
  const std::pair<std::vector<std::string>, std::string> options[] = {
      {{"--levels", "Video:1,Audio:1"}, "level number 1 is given twice"},
      {{"--outputs", "2", "--output-base", "65535"}, "destinations from 65535 would be numbered past 65535"},
      {{"--inputs", "600", "--input-base", "65000"}, "sources from 65000 would be numbered past 65535"},
      {{"--bogus"}, "unknown option --bogus (see --help)"},
      {{"--port=0"}, "unknown option --port=0: the value is the next word (--port 0)"},
      {{"--seed"}, "--seed wants a value (see --help)"},
      {{"--output-names", dir.path}, dir.path + " is a directory"},
      {{"--close-random", "0"}, "--close-random wants a number from 1 to 4294967295"},
      {{"--port", "0", "--backend-config", dir.path + "/none/r.cfg"},
       "cannot write " + dir.path + "/none/r.cfg"},
  };
  for (const auto& [args, reason] : options) {
    child_process emu;
    std::vector<std::string> argv{"switcher_emulator", "--no-controls"};
    argv.insert(argv.end(), args.begin(), args.end());
    ASSERT_TRUE(child_start(emu, EMULATOR_PATH, argv));
    EXPECT_EQ(1, child_wait_exit(emu, 10000));
    EXPECT_EQ("switcher_emulator: " + reason + "\n", emu.err_buf);
  }
  // Every control line gets its answer: an empty one too, and a last one
  // without its line end.
  child_process emu;
  emu.end_of_input_ms = 0;  // it outlives its input: SIGTERM stops it
  ASSERT_TRUE(child_start(emu, EMULATOR_PATH, {"switcher_emulator", "--port", "0", "--outputs", "1"}));
  child_write(emu, "\nroutes");
  child_close_input(emu);
  EXPECT_TRUE(child_wait([&emu] { return emu.out_buf.find("ok\n") != std::string::npos; }, 10000));
  EXPECT_EQ("error empty line\nroute 1 1\nok\n", emu.out_buf.substr(emu.out_buf.find('\n') + 1));
}

}  // namespace

// The console driven through pipes, as a script drives it, against the
// emulator: takes by number and by name before and after synchronising, the
// routes table after takes and renames on the switcher, refused lines, error
// replies, and the backend and the emulator ending under it.
#include <cstdlib>

#include "blackbox/system_fixture.h"

namespace {

class ConsoleTest : public SystemTest {};

// A script may start before the synchronisation: positions and names wait
// for the reports that give them. Routes come in the outputs' order, and
// "wait routes" waits until the switcher confirms every take sent. Bad lines
// are refused with one error each and never reach the backend.
TEST_F(ConsoleTest, ScriptTakesBeforeSynchronisationAndWaitsForItsTakes) {
  // Output 1 is named with quotes, output 2 as output 0 is.
  StartEmulator({"--outputs", "12", "--inputs", "12", "--output-names",
                 dir_.write("names", "\nSay \"Hi\"\nOUT 1\n")});
  const std::string cfg = dir_.write("c.cfg", client_emulator_config(port_));
  child_process console;  // stopped before the emulator: it stops its backend itself
  ASSERT_TRUE(child_start(console, CONSOLE_PATH,
                          {"zeph_route_console", "--backend", DAEMON_PATH, "--file", cfg}));
  const auto until = [&console](const std::string& text) { return LinesUntil(console.out_buf, text); };
  child_write(console, "take 4 9\ntake 10 1\nwait routes\nshow routes\n");
  const std::string lines = until("ok: flush (id 4)");
  ASSERT_NE("", lines);
  EXPECT_NE(std::string::npos, lines.find("ok: add o4 OUT 5 <- i9 CAM 10 (id 1)\n"));
  EXPECT_LT(lines.find("o9 OUT 10 <- i9 CAM 10\n"), lines.find("o10 OUT 11 <- i10 CAM 11\n"));
  EXPECT_LT(lines.find("o0 OUT 1 <- i0 CAM 1\n"), lines.find("o1 Say \"Hi\" <- i1 CAM 2\n"));
  const std::string table = until("  11  OUT 12");
  // The names' column is as wide as the longest name, Say "Hi".
  EXPECT_NE(std::string::npos, table.find("\n OUT  NAME        IN  NAME\n")) << table;
  EXPECT_NE(std::string::npos, table.find("\n   4  OUT 5        9  CAM 10\n")) << table;
  EXPECT_NE(std::string::npos, table.find("\n  10  OUT 11       1  CAM 2\n")) << table;

  struct Case {
    std::string line;
    std::string error;
  };
  const Case cases[] = {
      {"tkae 1 2", "unknown command \"tkae\" (help lists them)"},
      {"take 1", "take takes OUT IN (e.g. take 2 5)"},
      {"flush now", "flush takes nothing more (e.g. flush)"},
      {"take 12 1", "output 12 is out of range: the backend uses 12 outputs"},
      {"add 0 \"CAM 13\"", "no input is named \"CAM 13\" in the latest inputs report"},
      {"add \"1\" 1", "no output is named \"1\" in the latest outputs report"},
      {"take \"OUT 1 2", "a quote is not closed"},
      {"report levels", "report what? outputs or inputs"},
      {"show everything", "show what? routes, inputs, outputs or info"},
      {"log loud", "log level must be err, warn, note or dbg"},
      {"emulator take 1 1", "no emulator runs: start the console with --emulator"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    child_write(console, c.line + "\n");
    EXPECT_EQ("> " + c.line + "\nerror: " + c.error + "\n", until("error: "));
  }
  child_write(console, "raw\n*TYPE=command\n*COMMAND=Report\n*ID=r1\n\n");
  EXPECT_NE("", until("error: raw record (id r1): Unknown command Report"));

  // A name two outputs carry is refused; a backslash keeps a quote. No line
  // refused reached the backend: the next numbered request is the fifth.
  child_write(console, "add \"OUT 1\" 0\ntake \"Say \\\"Hi\\\"\" 3\n");
  EXPECT_NE("", until("error: outputs 0 and 2 are both named \"OUT 1\": give the position"));
  EXPECT_NE("", until("ok: add o1 Say \"Hi\" <- i3 CAM 4 (id 5)"));

  // Renames on the switcher's panel: the console shows the names reports as
  // they come, its table follows, and the new names take.
  child_write(emu_, "rename output 4 Studio D\n");
  EXPECT_NE("", until("outputs: 12 names"));
  child_write(emu_, "rename input 1 Mic\n");
  EXPECT_NE("", until("inputs: 12 names"));
  child_write(console, "show routes\ntake \"Studio D\" Mic\n");
  const std::string renamed = until("  11  OUT 12");
  EXPECT_NE(std::string::npos, renamed.find("\n   0  OUT 1        0  Mic\n")) << renamed;
  EXPECT_NE(std::string::npos, renamed.find("\n   3  Studio D     3  CAM 4\n")) << renamed;
  EXPECT_NE("", until("ok: add o3 Studio D <- i0 Mic (id 7)"));
  child_close_input(console);
  EXPECT_EQ(1, child_wait_exit(console, wait_ms));  // for the refused lines
  EXPECT_NE(std::string::npos, console.out_buf.find("backend stopped: exit status 0\n"));
}

// Short scripts against the emulator of --emulator: what each line says, and
// the console's exit status.
TEST_F(ConsoleTest, ScriptsSayWhatHappenedAndEndWithTheirStatus) {
  struct Case {
    std::vector<std::string> args;  // after the console's own name
    std::string script;
    std::string says;  // a line the output must hold, the last one it waits for
    int status;
  };
  const Case cases[] = {
      {{"--help"}, "", "usage: zeph_route_console [--backend PATH] --file CFG", 0},
      // No outputs: nothing to route, and nothing to wait for.
      {{"--emulator", "--outputs", "0"}, "wait\nshow routes\n", " OUT  NAME    IN  NAME", 0},
      {{"--emulator"}, "wait\nreport inputs\n",
       "inputs: no report follows; the latest has 16 names (show inputs)", 0},
      // Error paths follow.
      {{"--emulator", "--protect", "3"}, "wait\ntake 2 0\n",
       "error: take o2 OUT 3 refused by the switcher (code 04)", 1},
      {{"--emulator"}, "raw\n*TYPE=message\n*COMMAND=ping\n*ID=m1\n\n",
       "error: raw record (id m1): Message ping ignored", 1},
      // Asked to, the emulator stops without news; stopped otherwise, it ends
      // the session.
      {{"--emulator"}, "emulator quit\nsleep 0.5\nemulator take 1 1\n", "error: the emulator has ended", 1},
      {{"--emulator"}, "wait\nsleep 30\n", "error: the emulator ended by itself", 1},
      // Without a configuration file the backend stops at start-up, and a
      // wait ended by that says nothing more.
      {{"--file", dir_.path + "/missing.cfg"}, "wait\n",
       "error: the backend could not start: exit status 1", 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.script);
    child_process console;
    std::vector<std::string> argv{"zeph_route_console", "--backend", DAEMON_PATH};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    ASSERT_TRUE(child_start(console, CONSOLE_PATH, argv));
    child_write(console, c.script);
    std::string out;
    if (c.script.find("sleep 30") != std::string::npos) {
      // The emulator, the console's child, gets SIGTERM from outside while
      // the console sleeps.
      out = LinesUntil(console.out_buf, "> sleep 30");
      const std::string kill = "pkill -P " + std::to_string(console.pid) + " -f switcher_emulator";
      EXPECT_EQ(0, std::system(kill.c_str()));
    }
    out += LinesUntil(console.out_buf, c.says);
    EXPECT_NE(std::string::npos, out.find(c.says)) << out;
    child_close_input(console);
    EXPECT_EQ(c.status, child_wait_exit(console, wait_ms));
    EXPECT_EQ(std::string::npos, (out + console.out_buf).find("within 30 s"));
  }
}

}  // namespace

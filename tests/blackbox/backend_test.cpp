// The real backend. With no switcher: its command line and start-up checks,
// its parent channel and dispatcher, and the ways it ends. Against the
// switcher emulator: the synchronisation on the wire and the reports it
// produces, then a take and renames coming back through status polling and
// the end of input; and against a switcher that only acknowledges the
// handshake. A run-time address change is in the switchers' tests.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <csignal>

#include "blackbox/system_fixture.h"
#include "router/link_texts.h"

namespace {

using namespace std::string_literals;

TEST_F(SystemTest, CommandLineAndStartUpChecksStopTheBinary) {
  const std::string cfg = dir_.write("r.cfg", "inputs=4\n"), link = dir_.path + "/link.cfg";
  const std::string missing = dir_.path + "/missing.cfg";
  ASSERT_EQ(0, symlink(cfg.c_str(), link.c_str()));
  const std::string usage =
      "Grass Valley routing switcher backend process.\nzeph_route_grass_valley: [options]\n"
      " --file <path>\n";
  const std::string no_path = "No file path specified, use --file option. See --help for details\n";
  const auto invalid = [](const std::string& path) {
    return "File path '" + path + "' is not valid. Must exist and it must be a file.\n";
  };
  struct Case {
    std::vector<std::string> args;
    std::string err;
    std::string stdout_path = "";  // a file or device instead of a pipe
    int status = 1;
  };
  const Case cases[] = {
      {{"-h"}, usage},
      {{"---help"}, usage},
      {{"-h", "--bogus", "--file", cfg}, usage},
      {{"--bogus", "-h"}, "Unknown switch 'bogus'\n"},
      {{"--"}, "Unknown switch ''\n"},
      {{"--filex", cfg}, "Unknown switch 'filex'\n"},
      {{"--file"}, ""},
      {{"word", "--file"}, "Unknown argument 'word'\n"},
      {{}, no_path},
      {{"--file", ""}, no_path},
      {{"--file", missing}, invalid(missing)},
      {{"--file", dir_.path}, invalid(dir_.path)},
      {{"--file", link}, invalid(link)},
      {{"--file", cfg, "-file", missing}, invalid(missing)},
      {{"--file", cfg}, "Failed to prepare communications with parent process\n", dir_.path + "/o"},
      // A character device (a terminal, /dev/null) does as well as a pipe.
      {{"--file", cfg}, "<DBG>Changing number of inputs to 4\n", "/dev/null", 0},
      // A regular file that cannot be read: the process's own memory from address 0.
      {{"--file", "/proc/self/mem"}, "<ERR>Failure to read configuration\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    child_process child;
    std::vector<std::string> argv{"zeph_route_grass_valley"};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    ASSERT_TRUE(child_start(child, DAEMON_PATH, argv, c.stdout_path));
    child_close_input(child);
    EXPECT_EQ(c.status, child_wait_exit(child, wait_ms));
    EXPECT_EQ(c.err, child.err_buf);
  }
}

// A stray word is reported, but start-up goes on past it, once the
// configuration is no longer locked.
TEST_F(SystemTest, ServesParentUntilEndOfInput) {
  const std::string cfg = dir_.write("r.cfg", "inputs = 16\noutputs = 8\n");
  const int lock_fd = open(cfg.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(0, flock(lock_fd, LOCK_EX));
  ASSERT_TRUE(client_start(backend_, DAEMON_PATH, {"stray", "--file", cfg}));
  EXPECT_EQ("Unknown argument 'stray'\n", wait_for_stderr(backend_, "stray"));
  EXPECT_EQ("", read_record(backend_, 500));
  EXPECT_EQ(-1, wait_exit(backend_, 0));  // still waiting for the lock
  close(lock_fd);
  EXPECT_EQ(Info(16, 8), WithoutCopyright(read_record(backend_)));
  // A reply from the parent gets no answer of its own.
  Send("*COMMAND=set\n*TYPE=message\nname=outputs\nvalue=4\n\n"
       "*COMMAND=route output\n*TYPE=command\n*ID=41\nfrom input=9\nqueue=add\nto output=3\n\n"
       "*COMMAND=report\n*TYPE=reply\n*ID=44\nwhat=inputs\n\n"
       "*COMMAND=route output\n*TYPE=message\n*ID=45\n\n"
       "*COMMAND=report\n*TYPE=command\n*ID=46\nwhat=levels\n\n"
       "*COMMAND=Report\n*TYPE=command\n*ID=47\n\n");
  EXPECT_EQ(Info(16, 4), WithoutCopyright(read_record(backend_)));
  EXPECT_EQ("*COMMAND=route output\n*TYPE=reply\n*ID=41\n", read_record(backend_));
  EXPECT_EQ("*COMMAND=route output\n*ERROR=Message route output ignored\n*TYPE=reply\n*ID=45\n",
            read_record(backend_));
  EXPECT_EQ("*COMMAND=report\n*ERROR=I do not recognize what you are asking for\n*TYPE=reply\n"
            "*ID=46\n", read_record(backend_));
  EXPECT_EQ("*COMMAND=Report\n*ERROR=Unknown command Report\n*TYPE=reply\n*ID=47\n",
            read_record(backend_));
  EXPECT_EQ("<DBG>Changing number of outputs to 4\n", wait_for_stderr(backend_, "outputs to 4"));
  // Lines the channel ignores or holds unanswered, NUL included, then the end.
  Send("no equals\n\r\n*TYPE=x\n*ID=1\n\n\0\0=\n"s + std::string(5000, 'v') + "\n");
  child_close_input(backend_.child);
  EXPECT_EQ(0, wait_exit(backend_));
  EXPECT_TRUE(backend_.records.empty() && backend_.child.out_buf.empty());
  EXPECT_EQ("", backend_.partial_text);
  EXPECT_TRUE(backend_.diags.empty() && backend_.child.err_buf.empty());
}

// With no count ever changed, the first info report still comes.
TEST_F(SystemTest, SignalsEndIdleBinaryWithZero) {
  const std::string cfg = dir_.write("r.cfg", "# no keys\n");
  for (int sig : {SIGTERM, SIGHUP, SIGINT, SIGPIPE}) {
    SCOPED_TRACE(sig);
    parent_client c;
    ASSERT_TRUE(client_start(c, DAEMON_PATH, {"--file", cfg}));
    // The first report comes from the main loop, which starts with the handlers set.
    ASSERT_EQ(Info(0, 0), WithoutCopyright(read_record(c)));
    kill(c.child.pid, sig);
    EXPECT_EQ(0, wait_exit(c));
    EXPECT_TRUE(c.diags.empty()) << c.diags.front().text;  // no count changed: no line
  }
}

TEST_F(SystemTest, SynchronisesThenFollowsTakesAndRenames) {
  StartEmulator({"--outputs", "3", "--inputs", "4", "--model", "Test Model", "--firmware-type",
                 "V5", "--firmware-revision", "2.1", "--routes", "1:2,2:3,3:4"});
  StartBackend();
  // The frames on the wire, the take's included: the field kit's recorded session.
  EXPECT_EQ(Info(4, 3, "Test Model", "V5 [2.1]"), WithoutCopyright(WaitRecord("model=Test Model")));
  // The routes learned during the synchronisation, then the names tables.
  EXPECT_EQ("*COMMAND=outputs\n*TYPE=message\no0.input.all=1\no1.input.all=2\no2.input.all=3\n",
            read_record(backend_));
  EXPECT_EQ("*COMMAND=inputs\n*TYPE=message\ni0.name=CAM 1\ni1.name=CAM 2\ni2.name=CAM 3\n"
            "i3.name=CAM 4\n", read_record(backend_));
  EXPECT_EQ("*COMMAND=outputs\n*TYPE=message\no0.name=OUT 1\no1.name=OUT 2\no2.name=OUT 3\n",
            read_record(backend_));

  Send("*COMMAND=route output\n*TYPE=command\n*ID=7\nfrom input=0\nqueue=add\nto output=2\n\n"
       "*COMMAND=route output\n*TYPE=command\n*ID=8\nqueue=flush\n\n");
  EXPECT_EQ("*COMMAND=route output\n*TYPE=reply\n*ID=7\n", read_record(backend_));
  EXPECT_EQ("*COMMAND=route output\n*TYPE=reply\n*ID=8\n", read_record(backend_));
  EXPECT_EQ("*COMMAND=outputs\n*TYPE=message\no2.input.all=0\n", WaitRecord("input.all"));
  child_write(emu_, "rename output 2 Studio B\n");
  EXPECT_EQ("*COMMAND=outputs\n*TYPE=message\no0.name=OUT 1\no1.name=Studio B\no2.name=OUT 3\n",
            WaitRecord(".name="));

  child_close_input(backend_.child);
  EXPECT_EQ(0, wait_exit(backend_));
  ASSERT_FALSE(backend_.diags.empty());
  EXPECT_EQ(link_closed, backend_.diags.back().text + "\n");
}

// A switcher that only acknowledges the handshake: the backend resends it every
// 100 ms, gives up after 5 s and closes the link. A silent switcher, a hang-up
// and reconnecting every 5 s are shown by the router and synchronisation tests
// and, against the emulator's chaos, by the fault soak.
TEST_F(SystemTest, HandshakeAnsweredOnlyWithAcksGivesUpAfterFiveSeconds) {
  StartEmulator({"--ack-only"});
  StartBackend();
  EXPECT_NE("", LinesUntil(emu_.err_buf, "client connected"));
  const us_time_t start = monotonic_now_us();
  EXPECT_EQ("<ERR>Timeout sending message\n", wait_for_stderr(backend_, "<ERR>"));
  const us_time_t waited = monotonic_now_us() - start;
  EXPECT_GT(waited, 4'000'000);
  EXPECT_LT(waited, 7'000'000);
  EXPECT_EQ(link_closed, wait_for_stderr(backend_, link_closed));
  // Resent every 100 ms: about fifty handshakes on the connection given up.
  // A loaded machine stretches the resend cycles, never shortens them, so
  // the lower bound is loose; 200 ms or 50 ms resends still fall outside.
  const std::string log = LinesUntil(emu_.err_buf, "client closed");
  int handshakes = 0;
  for (std::size_t at = 0; (at = log.find("recv BK\n", at)) != std::string::npos; ++at) {
    ++handshakes;
  }
  EXPECT_GE(handshakes, 35);
  EXPECT_LE(handshakes, 55);
}

}  // namespace

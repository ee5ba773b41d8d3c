// The real binary's life with its parent: start-up under a locked
// configuration, the end of its input and the signals that stop it.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <csignal>
#include <string>

#include "support/process.h"
#include "support/temp_file.h"

namespace {

using namespace std::string_literals;

constexpr int wait_ms = 10000;  // generous bound for anything that must happen

class BackendTest : public testing::Test {
 protected:
  void SetUp() override { cfg_ = dir_.write("r.cfg", "# example\ninputs = 4\n"); }

  // Starts the backend and waits until start-up has read the configuration.
  void Start(child_process& c) {
    ASSERT_TRUE(spawn(c, DAEMON_PATH, {"zeph_route_grass_valley", "--file", cfg_}));
    ASSERT_EQ("<DBG>Changing number of inputs to 4\n", wait_for_stderr(c, "inputs", wait_ms));
  }

  temp_dir dir_;
  std::string cfg_;
};

TEST_F(BackendTest, EndOfInputAfterJunkExitsZero) {
  child_process c;
  Start(c);
  // Lines the channel must ignore or hold without answering, NUL included.
  const std::string junk =
      "no equals\n\r\n*TYPE=x\n*ID=1\n\n\0\0=\n"s + std::string(5000, 'v') + "\n";
  ASSERT_TRUE(send_text(c, junk));
  close_input(c);
  EXPECT_EQ(0, wait_exit(c, wait_ms));
  EXPECT_EQ("", c.err_buf);
}

TEST_F(BackendTest, SignalsEndProcessWithZero) {
  for (int sig : {SIGTERM, SIGHUP, SIGINT, SIGPIPE}) {
    SCOPED_TRACE(sig);
    child_process c;
    Start(c);
    // SIGINT gets its handler last; after that no signal can hit a default.
    ASSERT_TRUE(wait_signal_caught(c, SIGINT, wait_ms));
    send_signal(c, sig);
    EXPECT_EQ(0, wait_exit(c, wait_ms));
  }
}

TEST_F(BackendTest, LockedConfigurationDelaysStartUp) {
  const int lock_fd = open(cfg_.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(lock_fd, 0);
  ASSERT_EQ(0, flock(lock_fd, LOCK_EX));

  child_process c;
  ASSERT_TRUE(spawn(c, DAEMON_PATH, {"zeph_route_grass_valley", "--file", cfg_}));
  // While the lock is held the configuration is not read and nothing ends.
  EXPECT_EQ("", wait_for_stderr(c, "inputs", 500));
  EXPECT_FALSE(c.reaped);

  close(lock_fd);
  EXPECT_EQ("<DBG>Changing number of inputs to 4\n", wait_for_stderr(c, "inputs", wait_ms));
  close_input(c);
  EXPECT_EQ(0, wait_exit(c, wait_ms));
}

}  // namespace

// The command line and the start-up checks of the real binary.
#include <gtest/gtest.h>

#include <unistd.h>

#include <string>
#include <vector>

#include "support/process.h"
#include "support/temp_file.h"

namespace {

constexpr const char* argv0 = "zeph_route_grass_valley";
constexpr int exit_ms = 10000;  // generous: start-up failures exit at once

class CommandLineTest : public testing::Test {
 protected:
  void SetUp() override { cfg_ = dir_.write("r.cfg", "inputs=4\n"); }

  // Runs the binary to its end; returns its exit status and standard error.
  std::pair<int, std::string> Run(const std::vector<std::string>& args,
                                  const spawn_options& opt = {}) {
    child_process c;
    std::vector<std::string> argv{argv0};
    argv.insert(argv.end(), args.begin(), args.end());
    EXPECT_TRUE(spawn(c, DAEMON_PATH, argv, opt));
    const int status = wait_exit(c, exit_ms);
    return {status, c.err_buf};
  }

  static std::string Invalid(const std::string& path) {
    return "File path '" + path + "' is not valid. Must exist and it must be a file.\n";
  }

  temp_dir dir_;
  std::string cfg_;
};

TEST_F(CommandLineTest, StopsAtStartUp) {
  const std::string usage = std::string("Grass Valley routing switcher backend process.\n") +
                            argv0 + ": [options]\n --file <path>\n";
  const std::string missing = dir_.path + "/missing.cfg";
  const std::string link = dir_.path + "/link.cfg";
  ASSERT_EQ(0, symlink(cfg_.c_str(), link.c_str()));
  const std::string no_path = "No file path specified, use --file option. See --help for details\n";
  struct Case {
    const char* name;
    std::vector<std::string> args;
    std::string err;
  };
  const Case cases[] = {
      {"help", {"-h"}, usage},
      {"three dashes", {"---help"}, usage},
      {"help wins over what follows", {"-h", "--bogus", "--file", cfg_}, usage},
      {"unknown switch", {"--bogus", "-h"}, "Unknown switch 'bogus'\n"},
      {"bare dashes", {"--"}, "Unknown switch ''\n"},
      {"file with a suffix", {"--filex", cfg_}, "Unknown switch 'filex'\n"},
      {"file as last argument", {"--file"}, ""},
      {"stray word then file last", {"word", "--file"}, "Unknown argument 'word'\n"},
      {"no arguments", {}, no_path},
      {"empty path", {"--file", ""}, no_path},
      {"missing path", {"--file", missing}, Invalid(missing)},
      {"directory", {"--file", dir_.path}, Invalid(dir_.path)},
      {"symbolic link", {"--file", link}, Invalid(link)},
      {"second file wins", {"--file", cfg_, "-file", missing}, Invalid(missing)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto [status, err] = Run(c.args);
    EXPECT_EQ(1, status);
    EXPECT_EQ(c.err, err);
  }
}

TEST_F(CommandLineTest, StdoutToRegularFileFails) {
  spawn_options opt;
  opt.stdout_path = dir_.path + "/out";
  const auto [status, err] = Run({"--file", cfg_}, opt);
  EXPECT_EQ(1, status);
  EXPECT_EQ("Failed to prepare communications with parent process\n", err);
}

TEST_F(CommandLineTest, StrayWordDoesNotStopStartUp) {
  child_process c;
  ASSERT_TRUE(spawn(c, DAEMON_PATH, {argv0, "stray", "--file", cfg_}));
  EXPECT_EQ("Unknown argument 'stray'\n", wait_for_stderr(c, "stray", exit_ms));
  // The configuration was read, so start-up went on past the word.
  EXPECT_EQ("<DBG>Changing number of inputs to 4\n", wait_for_stderr(c, "inputs", exit_ms));
  EXPECT_FALSE(c.reaped);
  close_input(c);
  EXPECT_EQ(0, wait_exit(c, exit_ms));
}

}  // namespace

#pragma once

// The real backend, and for the system scenarios the real switcher emulator,
// both as children with pipes: the test plays the parent on the backend's
// standard input and output and reads the emulator's verbose frame log.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/process.h"
#include "support/temp_file.h"

class SystemTest : public testing::Test {
 protected:
  static constexpr int wait_ms = 15000;  // generous bound for anything that must happen

  // Starts the emulator on an ephemeral port with the given extra options.
  void StartEmulator(const std::vector<std::string>& extra = {}) {
    std::vector<std::string> argv{"switcher_emulator", "--port", "0", "--verbose"};
    argv.insert(argv.end(), extra.begin(), extra.end());
    ASSERT_TRUE(spawn(emu_, emulator_path_, argv));
    const std::string first = read_line(emu_, wait_ms);
    port_ = first.substr(first.find_last_of(' ') + 1);
    ASSERT_FALSE(port_.empty()) << first;
  }

  // Starts the backend on config, which names the emulator once one runs;
  // words go on the command line before "--file".
  void StartBackend(std::string config = "", std::vector<std::string> words = {}) {
    if (!port_.empty()) config += "ip address = 127.0.0.1\nport = " + port_ + "\n";
    words.insert(words.begin(), "zeph_route_grass_valley");
    words.insert(words.end(), {"--file", dir_.write("r.cfg", config)});
    ASSERT_TRUE(spawn(backend_, daemon_path_, words));
  }

  // Reads records until one holds needle; returns it, or "" at the deadline.
  std::string WaitRecord(const std::string& needle) {
    for (std::string r; !(r = read_record(backend_, wait_ms)).empty();) {
      if (r.find(needle) != std::string::npos) return r;
    }
    return {};
  }

  // The emulator's "recv" lines up to and including the one holding last.
  std::vector<std::string> ReceivedUntil(const std::string& last) {
    std::vector<std::string> seen;
    for (std::string line; !(line = wait_for_stderr(emu_, "recv ", wait_ms)).empty();) {
      seen.push_back(line.substr(line.find("recv ") + 5, line.size() - line.find("recv ") - 6));
      if (seen.back() == last) break;
    }
    return seen;
  }

  void Send(const std::string& record) { ASSERT_TRUE(send_text(backend_, record)); }

  // The credit text is the only report text not fixed by the protocol.
  static std::string WithoutCopyright(std::string record) {
    const std::size_t at = record.find("copyright=");
    if (at != std::string::npos) record.erase(at, record.find('\n', at) + 1 - at);
    return record;
  }

  std::string emulator_path_ = EMULATOR_PATH;  // other builds: installed ones
  std::string daemon_path_ = DAEMON_PATH;
  temp_dir dir_;
  child_process emu_;
  child_process backend_;
  std::string port_;
};

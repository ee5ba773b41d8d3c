#pragma once

// The real backend, and for the system scenarios the real switcher emulator,
// both as children with pipes driven by the parent-side client: the test
// plays the parent on the backend's standard input and output and reads the
// emulator's verbose frame log.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "parent_client/client.h"

class SystemTest : public testing::Test {
 protected:
  static constexpr int wait_ms = 15000;  // generous bound for anything that must happen

  void StartEmulator(std::vector<std::string> extra = {}) {
    extra.insert(extra.begin(), "--verbose");
    port_ = client_start_emulator(emu_, emulator_path_, extra, wait_ms);
    ASSERT_FALSE(port_.empty());
  }

  void StartBackend() {
    const std::string cfg = dir_.write("r.cfg", client_emulator_config(port_));
    ASSERT_TRUE(client_start(backend_, daemon_path_, {"--file", cfg}));
  }

  // Reads records until one holds needle; returns it, or "" at the deadline.
  std::string WaitRecord(const std::string& needle) {
    for (std::string r; !(r = read_record(backend_, wait_ms)).empty();) {
      if (r.find(needle) != std::string::npos) return r;
    }
    return {};
  }

  void Send(const std::string& record) { client_send_text(backend_, record); }

  // The credit text is the only report text not fixed by the protocol.
  static std::string WithoutCopyright(std::string record) {
    const std::size_t at = record.find("copyright=");
    if (at != std::string::npos) record.erase(at, record.find('\n', at) + 1 - at);
    return record;
  }
  // The info report less its credit text.
  static std::string Info(int inputs, int outputs, const std::string& model = "",
                          const std::string& firmware = "") {
    return "*COMMAND=info\n*TYPE=message\ncompany=Grass Valley\nfirmware version=" + firmware +
           "\ninputs=" + std::to_string(inputs) + "\nmodel=" + model +
           "\noutput routing controls=all\noutputs=" + std::to_string(outputs) +
           "\nproduct=Grass Valley Native Protocol switcher or compatible\n";
  }

  std::string emulator_path_ = EMULATOR_PATH;  // other builds: installed ones
  std::string daemon_path_ = DAEMON_PATH;

  // The next record's text, its lines each with "\n" and without the empty
  // line; "" when none came within timeout_ms.
  static std::string read_record(parent_client& c, int timeout_ms = wait_ms) {
    client_record r;
    return client_next_record(c, timeout_ms, r) ? r.text : "";
  }

  // Takes the diagnostic lines up to one holding text (a whole line when it
  // ends in "\n") and returns that one with its "\n"; "" when none came.
  static std::string wait_for_stderr(parent_client& c, const std::string& text) {
    client_diag line;
    return client_wait_diag(c, text.substr(0, text.find('\n')), wait_ms, line) ? line.text + "\n" : "";
  }
  // Takes the lines of buf, a child's output, up to and including the first
  // that holds text, each with its "\n"; "" when none came in time.
  static std::string LinesUntil(std::string& buf, const std::string& text) {
    std::string seen;
    return child_wait([&] {
      for (std::string line; child_take_line(buf, line);) {
        seen += line + "\n";
        if (line.find(text) != std::string::npos) return true;
      }
      return false;
    }, wait_ms) ? seen : "";
  }

  // The backend's exit status, or -1 when it did not exit within timeout_ms
  // or died of a signal; what it wrote is then in records and diags.
  static int wait_exit(parent_client& c, int timeout_ms = wait_ms) {
    const int status = child_wait_exit(c.child, timeout_ms);
    client_take_output(c);
    return status;
  }

  temp_dir dir_;
  child_process emu_;
  parent_client backend_;  // stopped first, as it was started last
  std::string port_;
};

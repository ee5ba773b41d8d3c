// The field kit: the Wireshark dissector reading captures that the emulator
// records (and one of other traffic, kept beside the expected outputs), and
// the Debian package installed in a scratch root.
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "blackbox/system_fixture.h"
#include "support/tcp_peer.h"

namespace {

class FieldKitTest : public SystemTest {
 protected:
  // Standard output of a shell command.
  static std::string Run(const std::string& command) {
    std::string out;
    if (FILE* p = popen(command.c_str(), "r")) {
      char buf[4096];
      for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
      pclose(p);
    }
    return out;
  }

  // One line per packet that carries the protocol; with the port's
  // preference, or found by the framing alone. HOME keeps the user's
  // profile, and any dissector installed in it, out.
  std::string Fields(const std::string& capture, bool port_preference = true) {
    return Run("HOME=" + dir_.path + " XDG_CONFIG_HOME=" + dir_.path +
               " timeout 60 tshark -X lua_script:" DISSECTOR_PATH +
               (port_preference ? " -o gvnp.port:" + port_ : std::string()) + " -r " + capture +
               " -Y gvnp -T fields -E separator='|' -e gvnp.type -e gvnp.command -e gvnp.param"
               " -e gvnp.checksum.status -e gvnp.nak.code 2>/dev/null");
  }
};

// A capture of other TCP traffic on ports with no dissector of their own,
// where every packet meets the heuristics, one packet a conversation: an HTTP
// request and answer, an SSH greeting, a TLS-like record, random bytes, and
// the protocol's control bytes in other framings ("\x01hello, world\x04", the
// layout with a wrong checksum, a right checksum without the layout, an ACK,
// a NAK). None of it is this protocol.
TEST_F(FieldKitTest, DissectorTakesNoOtherTrafficForThisProtocol) {
  ASSERT_NE("", Run("command -v tshark")) << "tshark is not installed: tools/setup.sh test installs it";
  const std::string capture = GOLDEN_DIR "/other_traffic.pcap";
  const std::string all = Run("HOME=" + dir_.path + " timeout 60 tshark -X lua_script:" +
                              DISSECTOR_PATH + " -r " + capture + " 2>/dev/null");
  EXPECT_EQ(10, std::count(all.begin(), all.end(), '\n'));
  EXPECT_EQ("", Fields(capture, false));
}

TEST_F(FieldKitTest, DissectorReassemblesAndMarksFaults) {
  ASSERT_NE("", Run("command -v tshark")) << "tshark is not installed: tools/setup.sh test installs it";
  const std::string capture = dir_.path + "/faults.pcap";
  StartEmulator({"--inputs", "3", "--garbage", "3", "--corrupt-random", "3", "--split-writes",
                 "--pcap", capture});
  // One write, which the emulator reads 4096 bytes at a time: an ACK, CR LF,
  // three requests, a "QD" with a wrong checksum, one holding a NUL and an
  // over-long one.
  const std::string bytes = std::string("\x06\r\n\x01N0BK\tN9E\x04\x01N0QN\tIS3E\x04") +
                            "\x01N0QI\t1\t075\x04\x01N0QD00\x04" +
                            std::string("\x01N0BK\0\tN00\x04", 11) + "\x01" +
                            std::string(4100, 'x') + "\x04";
  int fd = connect_loopback(static_cast<std::uint16_t>(std::stoi(port_)));
  ASSERT_GE(fd, 0);
  ASSERT_TRUE(write_all(fd, bytes));
  // Three answers and three NAKs. Stray bytes never hold SOH or NAK and
  // come before a frame, so the last EOT ends the answers.
  std::string got;
  auto complete = [&got] {
    return std::count_if(got.begin(), got.end(), [](char c) { return c == 0x01 || c == 0x15; }) ==
               6 && got.back() == '\x04';
  };
  for (int i = 0; i < wait_ms / 100 && !complete(); ++i) got += read_for(fd, 1, 100);
  close_fd(fd);
  ASSERT_TRUE(complete());
  child_write(emu_, "quit\n");
  EXPECT_EQ(0, child_wait_exit(emu_, wait_ms));
  EXPECT_EQ(Run("cat " GOLDEN_DIR "/fault_session.txt"), Fields(capture));
}

// The package unpacked into a scratch root: its emulator records the session
// in which its backend synchronises, takes input 2 to output 1, sees the route
// come back through polling and ends at the end of its input. On the
// emulator's ephemeral port, without the port's preference or "Decode As",
// the dissector finds the protocol by its framing.
TEST_F(FieldKitTest, InstalledPackageSynchronisesRoutesAndIsDecoded) {
  ASSERT_EQ(0, access(PACKAGE_DEB, R_OK)) << PACKAGE_DEB " is missing: make package builds it";
  ASSERT_NE("", Run("command -v tshark")) << "tshark is not installed: tools/setup.sh test installs it";
  const std::string root = dir_.path + "/root";
  ASSERT_EQ("", Run("dpkg-deb -x " PACKAGE_DEB " " + root + " 2>&1"));
  emulator_path_ = root + "/usr/bin/switcher_emulator";
  daemon_path_ = root + "/usr/bin/zeph_route_grass_valley";
  const std::string capture = dir_.path + "/clean.pcap";
  StartEmulator({"--outputs", "2", "--inputs", "3", "--pcap", capture});
  StartBackend();
  ASSERT_NE("", WaitRecord("o1.name=OUT 2"));
  Send("*COMMAND=route output\n*TYPE=command\n*ID=1\nfrom input=2\nqueue=add\nto output=1\n\n"
       "*COMMAND=route output\n*TYPE=command\n*ID=2\nqueue=flush\n\n");
  EXPECT_NE("", WaitRecord("o1.input.all=2"));
  child_close_input(backend_.child);
  EXPECT_EQ(0, wait_exit(backend_));
  child_write(emu_, "quit\n");
  EXPECT_EQ(0, child_wait_exit(emu_, wait_ms));
  // The session up to the answer to the take, less the status polls that find
  // nothing (about every 350 ms), however many fell before the take.
  std::string fields = Fields(capture, false);
  const std::string idle_poll =
      "message|BK|F|good|\nmessage|KB|F,0|good|\nmessage|BK|f,0|good|\n"
      "message|ER|00,BK|good|\nmessage|QD||good|\nmessage|ER|00,QD|good|\n";
  for (std::size_t at; (at = fields.find(idle_poll)) != std::string::npos;) {
    fields.erase(at, idle_poll.size());
  }
  const std::string taken = "message|ER|00,TI|good|\n";
  EXPECT_EQ(Run("cat " GOLDEN_DIR "/clean_session.txt"), fields.substr(0, fields.find(taken) + taken.size()));
}

}  // namespace

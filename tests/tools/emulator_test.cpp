#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "switcher_emulator/control.h"
#include "switcher_emulator/emulator.h"
#include "switcher_emulator/server.h"
#include "switcher_emulator/splitter.h"

namespace {

// "ER|00|BK", with a leading "+" when the message announces continuation.
std::string summary(const router_message& m) {
  std::string s = m.seq == '0' ? "" : "+";
  s.append(m.request, strnlen(m.request, 2));
  for (const std::string& p : m.parameters) s += "|" + p;
  return s;
}

std::string summaries(const std::vector<router_message>& msgs) {
  std::string s;
  for (const router_message& m : msgs) s += (s.empty() ? "" : " / ") + summary(m);
  return s;
}

std::string frame_text(const router_message& m) {
  router_frame f;
  EXPECT_TRUE(encode_router_frame(m, f)) << summary(m);
  return f.data();
}

class SwitcherEmulatorTest : public testing::Test {
 protected:
  void SetUp() override { Init(); }
  void Init() {
    std::string error;
    ASSERT_TRUE(emulator_init(cfg, st, error)) << error;
  }
  std::string Ask(const char* letters, std::vector<std::string> params = {}) {
    return summaries(emulator_answer(cfg, st, make_router_request(letters, std::move(params))));
  }
  emulator_config cfg;
  emulator_state st;
};

TEST_F(SwitcherEmulatorTest, AnswersEachRequestForm) {
  struct Case {
    const char* letters;
    std::vector<std::string> params;
    const char* answer;
  };
  const Case cases[] = {
      {"BK", {}, "ER|00|BK"},
      {"BK", {"N"}, "KB|N|Emulated Switcher"},
      {"BK", {"R"}, "KB|R|1.0"},
      {"BK", {"T"}, "KB|T|EMU"},
      {"BK", {"I", "15"}, "ER|00|BK"},
      {"BK", {"E", "OFF"}, "ER|00|BK"},
      {"BK", {"D"}, "ER|00|BK"},
      {"BK", {"F"}, "KB|F|0"},
      {"BK", {"f", "14"}, "ER|00|BK"},
      {"QN", {"L"}, "NQ|L|2|Video|0|0|Audio|1|0"},
      {"QD", {}, "ER|00|QD"},
      {"QI", {"3", "0"}, "IQ|3|0|0|0|3"},
      {"QI", {"a", "1"}, "IQ|A|1|0|0|A"},
      {"TI", {"10", "1"}, "ER|00|TI"},
      // Error paths follow.
      {"BK", {"X"}, "ER|01|BK"},
      {"BK", {"f"}, "ER|02|BK"},
      {"BK", {"f", "1G"}, "ER|02|BK"},
      {"BK", {"I"}, "ER|02|BK"},
      {"QN", {"S"}, "ER|02|QN"},
      {"QI", {"1"}, "ER|02|QI"},
      {"QI", {"0", "0"}, "ER|03|QI"},
      {"QI", {"11", "0"}, "ER|03|QI"},
      {"QI", {"1", "2"}, "ER|03|QI"},
      {"TI", {"1", "0"}, "ER|03|TI"},  // a take without a source (below the base)
      {"TI", {"1", "11"}, "ER|03|TI"},
      {"TI", {"1", "-1"}, "ER|02|TI"},
      {"TI", {"123456789", "1"}, "ER|02|TI"},
      {"ZZ", {}, "ER|01|ZZ"},
      {"\t\x01", {}, "ER|01|??"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.letters + (c.params.empty() ? std::string() : " " + c.params[0]));
    Init();
    EXPECT_EQ(c.answer, Ask(c.letters, c.params));
  }
  router_message other = make_router_request("BK");
  other.protocol = 'R';
  EXPECT_EQ("ER|01|BK", summaries(emulator_answer(cfg, st, other)));
}

TEST_F(SwitcherEmulatorTest, AnswersAreWellFormedFrames) {
  EXPECT_EQ(std::string("\x01N0ER\t00\tBKEC\x04"),
            frame_text(emulator_answer(cfg, st, make_router_request("BK"))[0]));
  EXPECT_EQ(std::string("\x01N0ER\t00\tQDE4\x04"),
            frame_text(emulator_answer(cfg, st, make_router_request("QD"))[0]));
  ASSERT_TRUE(emulator_take(cfg, st, 1, 2));
  ASSERT_TRUE(emulator_take(cfg, st, 2, 2));
  // N 1 D Q TAB "OUT 1" TAB 1 sums to 0x2A0: checksum 60.
  const auto dq = emulator_answer(cfg, st, make_router_request("QD"));
  ASSERT_EQ(2u, dq.size());
  EXPECT_EQ(std::string("\x01N1DQ\tOUT 1\t160\x04"), frame_text(dq[0]));
  EXPECT_EQ('0', dq[1].seq);
}

TEST_F(SwitcherEmulatorTest, TakesAndRenamesFeedStatusPolling) {
  EXPECT_EQ("ER|00|TI", Ask("TI", {"3", "5"}));
  EXPECT_EQ("ER|00|TI", Ask("TI", {"1", "1"}));
  EXPECT_EQ("+DQ|OUT 1|1 / DQ|OUT 3|3", Ask("QD"));
  EXPECT_EQ("ER|00|QD", Ask("QD"));  // answering cleared the changed set
  EXPECT_EQ("IQ|3|0|0|0|5", Ask("QI", {"3", "0"}));
  EXPECT_EQ("KB|F|0", Ask("BK", {"F"}));  // a take alone changes no names

  ASSERT_TRUE(emulator_rename(cfg, st, true, 2, "Studio B"));
  EXPECT_EQ("KB|F|4", Ask("BK", {"F"}));
  EXPECT_NE(std::string::npos, Ask("QN", {"ID"}).find("|OUT 1|1|0|3|Studio B|2|0|3|"));
  EXPECT_EQ("DQ|Studio B|2", Ask("QD"));
  // Renaming source 5 changes what destinations 3 and 5 (from start-up) show.
  ASSERT_TRUE(emulator_rename(cfg, st, false, 5, "Cam Five"));
  EXPECT_EQ("KB|F|14", Ask("BK", {"F"}));
  EXPECT_EQ("+DQ|OUT 3|3 / DQ|OUT 5|5", Ask("QD"));
  EXPECT_EQ("ER|00|BK", Ask("BK", {"f", "4"}));
  EXPECT_EQ("KB|F|10", Ask("BK", {"F"}));
  // Error paths follow: nothing changes.
  EXPECT_FALSE(emulator_rename(cfg, st, true, 17, "X"));
  EXPECT_FALSE(emulator_rename(cfg, st, true, 1, "A\tB"));
  EXPECT_FALSE(emulator_rename(cfg, st, false, 1, std::string(emulator_max_name + 1, 'n')));
  EXPECT_FALSE(emulator_take(cfg, st, 0, 1));
  EXPECT_EQ("KB|F|10", Ask("BK", {"F"}));
  EXPECT_EQ("ER|00|QD", Ask("QD"));
}

TEST_F(SwitcherEmulatorTest, LongListsAreSplitIntoContinuedFrames) {
  cfg.outputs = emulator_max_ports;
  cfg.output_base = 0;
  for (std::uint32_t i = 0; i < cfg.outputs; ++i) {
    cfg.output_names.push_back(std::to_string(i) + std::string(emulator_max_name, 'x'));
    cfg.output_names.back().resize(emulator_max_name);
  }
  Init();
  const auto msgs = emulator_answer(cfg, st, make_router_request("QN", {"ID"}));
  ASSERT_GT(msgs.size(), 1u);
  std::uint32_t next = 0;
  for (std::size_t k = 0; k < msgs.size(); ++k) {
    const router_message& m = msgs[k];
    SCOPED_TRACE(k);
    EXPECT_EQ(k + 1 == msgs.size() ? '0' : '1', m.seq);
    ASSERT_GE(m.parameters.size(), 2u);
    EXPECT_EQ("ID", m.parameters[0]);
    const std::size_t count = std::stoul(m.parameters[1], nullptr, 16);
    ASSERT_EQ(2 + 4 * count, m.parameters.size());
    for (std::size_t g = 0; g < count; ++g, ++next) {
      EXPECT_EQ(cfg.output_names[next], m.parameters[2 + 4 * g]);
      EXPECT_EQ(std::stoul(m.parameters[3 + 4 * g], nullptr, 16), next);
    }
    // Every frame fits; all but the last are nearly full.
    const std::size_t bytes = frame_text(m).size();
    EXPECT_TRUE(k + 1 == msgs.size() || bytes > 900) << bytes;
  }
  EXPECT_EQ(cfg.outputs, next);
  for (std::uint32_t i = 0; i < cfg.outputs; ++i) ASSERT_TRUE(emulator_take(cfg, st, i, 1));
  const auto dq = emulator_answer(cfg, st, make_router_request("QD"));
  ASSERT_EQ(cfg.outputs, dq.size());
  EXPECT_EQ('1', dq.front().seq);
  EXPECT_EQ('0', dq.back().seq);
}

TEST_F(SwitcherEmulatorTest, StartsFromConfiguredTables) {
  cfg.outputs = 5;
  cfg.inputs = 3;
  cfg.output_names = {"", "Main"};
  cfg.routes = {{4, 1}};
  Init();
  EXPECT_EQ("OUT 1", st.output_names[0]);
  EXPECT_EQ("Main", st.output_names[1]);
  EXPECT_EQ("CAM 3", st.input_names[2]);
  EXPECT_EQ((std::vector<std::uint32_t>{0, 1, 2, 0, 1}), st.routes);  // 4:1 applied
  EXPECT_EQ("ER|00|QD", Ask("QD"));  // the start-up table is no change
  // Error paths follow.
  struct Case {
    const char* name;
    void (*spoil)(emulator_config&);
  };
  const Case cases[] = {
      {"too many outputs", [](emulator_config& c) { c.outputs = 1025; }},
      {"no inputs", [](emulator_config& c) { c.inputs = 0; }},
      {"more names than outputs", [](emulator_config& c) { c.output_names.resize(6, "n"); }},
      {"control byte in a name", [](emulator_config& c) { c.input_names = {"a\x04"}; }},
      {"level 32", [](emulator_config& c) { c.levels = {{"Key", 32}}; }},
      {"no levels", [](emulator_config& c) { c.levels.clear(); }},
      {"route to no source", [](emulator_config& c) { c.routes = {{1, 4}}; }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    emulator_config bad = cfg;
    c.spoil(bad);
    std::string error;
    EXPECT_FALSE(emulator_init(bad, st, error));
    EXPECT_FALSE(error.empty());
  }
}

TEST(SwitcherEmulatorControlTest, RunsControlLines) {
  emulator_config cfg;
  cfg.outputs = 2;
  emulator_state st;
  std::string error;
  ASSERT_TRUE(emulator_init(cfg, st, error));
  struct Case {
    const char* line;
    const char* out;
  };
  const Case cases[] = {
      {"take 2 5", "ok\n"},
      {"rename output 1  Big  Screen", "ok\n"},
      {"routes", "route 1 1\nroute 2 5\nok\n"},
      {"flags\r", "flags 4\nok\n"},
      {"", ""},
      // Error paths follow.
      {"take 3 1", "error no such destination or source\n"},
      {"take 1", "error usage: take DEST SOURCE\n"},
      {"take 1 0x2", "error usage: take DEST SOURCE\n"},
      {"rename output 1", "error usage: rename output|input N NAME\n"},
      {"rename input 99 X", "error no such destination or source, or a bad name\n"},
      {"dance", "error unknown control\n"},
  };
  bool quit = false;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    std::string out;
    control_line(cfg, st, c.line, out, quit);
    EXPECT_EQ(c.out, out);
  }
  EXPECT_EQ("Big  Screen", st.output_names[0]);
  EXPECT_FALSE(quit);
  std::string out;
  control_line(cfg, st, "quit", out, quit);
  EXPECT_TRUE(quit);
}

// What the splitter made of some bytes: "BK|F" per good message, "!reason"
// per dropped frame.
std::string split(const std::string& bytes, std::size_t piece = 4096) {
  frame_splitter sp;
  std::vector<splitter_item> items;
  for (std::size_t i = 0; i < bytes.size(); i += piece) {
    splitter_feed(sp, bytes.data() + i, std::min(piece, bytes.size() - i), items);
  }
  std::string s;
  for (const splitter_item& it : items) {
    s += (s.empty() ? "" : " / ") + (it.good ? summary(it.msg) : "!" + std::string(it.reason));
  }
  return s;
}

TEST(SwitcherEmulatorSplitterTest, SplitsFramesAndSkipsTheRest) {
  const std::string bk_f = "\x01N0BK\tFA6\x04";  // the backend's "BK" "F"
  const std::string qd = frame_text(make_router_request("QD"));
  struct Case {
    const char* name;
    std::string bytes;
    std::size_t piece;
    const char* result;
  };
  const Case cases[] = {
      {"one frame", bk_f, 4096, "BK|F"},
      {"byte by byte", bk_f + qd, 1, "BK|F / QD"},
      {"ACK and garbage between", "\x06xy\x04" + bk_f + "\r\n\x06" + qd, 3, "BK|F / QD"},
      {"lower-case checksum", "\x01N0BK\tFa6\x04", 4096, "BK|F"},
      {"empty parameter kept", frame_text(make_router_request("TI", {"", "2"})), 4096,
       "TI||2"},
      {"trailing TAB opens none", "\x01N0QD\tE4\x04", 4096, "QD"},
      {"SOH restarts a frame", "\x01N0BK\tF" + qd, 4096, "QD"},
      // Error paths follow.
      {"bad checksum", "\x01N0BK\tFA7\x04" + qd, 4096, "!checksum / QD"},
      {"checksum not hex", "\x01N0QDGG\x04", 4096, "!checksum"},
      {"short", "\x01N0Q\x04", 4096, "!short"},
      {"bytes before the first TAB", "\x01N0BKX\tF4E\x04", 4096, "!header"},
      {"NUL", std::string("\x01N0B\0K\x04", 7) + qd, 4096, "!nul / QD"},
      {"over-long", "\x01" + std::string(splitter_max_body + 10, 'A') + "\x04" + qd, 999,
       "!long / QD"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.result, split(c.bytes, c.piece));
  }
}

TEST(SwitcherEmulatorSplitterTest, SurvivesAnyBytes) {
  std::mt19937 gen(7);
  frame_splitter sp;
  std::vector<splitter_item> items;
  std::string chunk;
  for (int round = 0; round < 2000; ++round) {
    chunk.resize(1 + gen() % 1500);
    // Mostly printable bytes so that bodies grow long, with frame bytes mixed in.
    for (char& c : chunk) c = static_cast<char>(gen() % 50 == 0 ? gen() % 8 : 'A' + gen() % 60);
    splitter_feed(sp, chunk.data(), chunk.size(), items);
    ASSERT_LE(sp.body.size(), splitter_max_body);
    items.clear();
  }
  const std::string qd = frame_text(make_router_request("QD"));
  splitter_feed(sp, qd.data(), qd.size(), items);
  ASSERT_FALSE(items.empty());
  EXPECT_EQ("QD", summary(items.back().msg));
}

// The emulator listening on an ephemeral loopback port, stepped by the test.
class SwitcherEmulatorServerTest : public testing::Test {
 protected:
  void TearDown() override {
    if (client >= 0) close(client);
    server_close(server);
  }
  void Start() {
    server.opt.port = 0;
    ASSERT_TRUE(server_open(server));
    client = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(server.port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(0, connect(client, reinterpret_cast<sockaddr*>(&addr), sizeof addr));
  }
  // Sends bytes, then steps the server and reads until done(what came back)
  // holds, the connection ended or 5 s passed. Returns what came back.
  template <typename Done>
  std::string ExchangeUntil(const std::string& bytes, Done done) {
    EXPECT_EQ(static_cast<ssize_t>(bytes.size()), write(client, bytes.data(), bytes.size()));
    std::string got;
    const us_time_t end = monotonic_now_us() + 5000000;
    while (!done(got) && monotonic_now_us() < end) {
      server_step(server, 10);
      char buf[4096];
      const ssize_t r = recv(client, buf, sizeof buf, MSG_DONTWAIT);
      if (r == 0) {
        closed = true;
        break;
      }
      if (r > 0) got.append(buf, static_cast<std::size_t>(r));
    }
    return got;
  }
  std::string Exchange(const std::string& bytes, std::size_t want) {
    return ExchangeUntil(bytes, [want](const std::string& got) { return got.size() >= want; });
  }
  emulator_server server;
  int client = -1;
  bool closed = false;  // the server ended the connection
};

TEST_F(SwitcherEmulatorServerTest, AnswersOverTcp) {
  Start();
  const std::string bk = frame_text(make_router_request("BK"));
  const std::string answer = "\x01N0ER\t00\tBKEC\x04";
  // A request in two pieces with an ACK in front, then one with a bad checksum.
  std::string got = Exchange("\x06" + bk.substr(0, 3), 0);
  for (int i = 0; i < 5; ++i) server_step(server, 10);  // accepts and reads the first piece
  got += Exchange(bk.substr(3), answer.size());
  EXPECT_EQ(answer, got);
  EXPECT_EQ("\x15" "0001\x04", Exchange("\x01N0BKF6\x04", 6));
}

TEST_F(SwitcherEmulatorServerTest, InjectsFaultsDeterministically) {
  server.opt.faults.garbage = 3;
  server.opt.faults.corrupt_random = 2;
  server.opt.faults.split_writes = true;
  server.opt.faults.close_after = 8;
  Start();
  const std::string qd = frame_text(make_router_request("QD"));
  std::string seven;
  for (int i = 0; i < 7; ++i) seven += qd;
  auto items = [](const std::string& got) {
    const std::string frames = split(got);
    return frames.empty() ? 0 : 1 + std::count(frames.begin(), frames.end(), '/');
  };
  const std::string got = ExchangeUntil(seven, [&](const std::string& g) { return items(g) == 7; });
  // Garbage never hides a frame, and with seed 1 some checksums are wrong.
  const std::string frames = split(got);
  EXPECT_EQ(7, items(got)) << frames;
  EXPECT_NE(std::string::npos, frames.find("ER|00|QD")) << frames;
  EXPECT_NE(std::string::npos, frames.find("!checksum")) << frames;
  EXPECT_FALSE(closed);
  // The eighth frame closes the connection unanswered.
  EXPECT_EQ("", Exchange(qd, 1));
  EXPECT_TRUE(closed);
}

}  // namespace

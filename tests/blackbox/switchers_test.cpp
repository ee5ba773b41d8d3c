// Switchers that differ from the usual ones, each on the emulator that has its
// trait: what the backend makes of it as it usually is, then with the key that
// serves it, in the file or applied by "set" at run time (and a reconnect).
#include "blackbox/system_fixture.h"
#include "router/link_texts.h"

namespace {

class SwitcherTraitTest : public SystemTest,
                          public testing::WithParamInterface<std::tuple<int, std::string>> {
 protected:
  // One request answered; reports sent before its reply are read by then.
  void Ask(const parent_message& req) {
    client_record reply;
    ASSERT_TRUE(client_request(backend_, req, wait_ms, reply));
  }
  void Synchronised() { ASSERT_NE("", wait_for_stderr(backend_, "<DBG>Sending periodic status")); }
  void Take(long input, long output) {
    (void)client_send(backend_, client_route_request("add", input, output));
    Ask(client_route_request("flush"));
  }
  // The routes the backend reported, "output=input ", after asking for them all.
  std::string Routed() {
    Ask(client_report_request("outputs"));
    Ask(client_report_request("inputs"));
    std::string s;
    for (const auto& [o, i] : backend_.tables.routes) s += std::to_string(o) + '=' + std::to_string(i) + ' ';
    return s;
  }
  // The takes the switcher received, up to and with the one holding last.
  std::string TakesUntil(const std::string& last) {
    std::string takes, seen = LinesUntil(emu_.err_buf, last);
    for (std::size_t at = 0; (at = seen.find("recv TI ", at)) != std::string::npos; at += 5) {
      takes += seen.substr(at + 5, seen.find('\n', at) - at - 5) + "; ";
    }
    return takes;
  }
};

TEST_P(SwitcherTraitTest, KeyCuresTheSymptom) {
  struct trait {
    const char* name;
    std::vector<std::string> emulator;
    const char *key, *value;
    std::string symptom, cured;
    std::function<std::string()> observe;
  };
  const trait traits[] = {
      // Takes on the switcher's own panel, in the routing report status polling makes.
      {"numbered from 0", {"--outputs", "3", "--inputs", "3", "--output-base", "0", "--input-base", "0"},
       "status numbering", "base", "o1.input.all=2\no2.input.all=2\n", "o0.input.all=2\no1.input.all=2\n",
       [this] {
         child_write(emu_, "take 0 2\ntake 1 2\n");
         const std::string report = WaitRecord("o1.input.all=2");
         return report.substr(report.find("\no") + 1);
       }},
      {"no level 0", {"--outputs", "2", "--inputs", "2", "--levels", "Video:1,Audio:2"},
       "status level", "first", "", "0=0 1=1 ", [this] { return Routed(); }},
      {"slow handshake", {"--outputs", "2", "--inputs", "2", "--delay", "400"}, "handshake resend",
       "1000", "", "Emulated Switcher", [this] { return backend_.tables.info["model"]; }},
      // The switcher gone, a take flushed meanwhile, then one once it is back.
      {"long off the air", {}, "flush while down", "drop", "TI 2 2; TI 3 3; ", "warned; TI 3 3; ", [this] {
         child_write(emu_, "drop\n");
         if (wait_for_stderr(backend_, link_closed).empty()) return std::string("never dropped");
         Take(1, 1);  // the warning is written before the flush's reply
         const bool warned = std::any_of(backend_.diags.begin(), backend_.diags.end(), [](auto& d) {
           return d.text == "<WARN>Dropping 1 route changes flushed while the link is down";
         });
         Synchronised();
         Take(2, 2);
         return (warned ? "warned; " : "") + TakesUntil("recv TI 3 3");
       }},
      {"300 destinations", {"--outputs", "300", "--inputs", "4"}, "active limit", "512", "TI 1 2; ",
       "TI 12C 2; TI 1 2; 299 reported", [this] {
         Take(1, 299);
         Take(1, 0);
         const std::string takes = TakesUntil("recv TI 1 2");  // before asking for the routes
         return takes + (Routed().find(" 299=1 ") == std::string::npos ? "" : "299 reported");
       }},
  };
  const auto& [which, from] = GetParam();
  const trait& t = traits[which];
  SCOPED_TRACE(t.name + (", " + from));
  StartEmulator(t.emulator);
  const std::string key = std::string(t.key) + " = " + t.value + "\n";
  const std::string cfg = client_emulator_config(port_) + (from == "key in file" ? key : "");
  ASSERT_TRUE(client_start(backend_, daemon_path_, {"--file", dir_.write("r.cfg", cfg)}));
  Synchronised();
  if (from == "key by set") {  // then a reconnect, by another spelling of the address
    for (const auto& [name, value] : {std::pair{t.key, t.value}, std::pair{"ip address", "127.1"}}) {
      Send(std::string("*COMMAND=set\n*TYPE=message\nname=") + name + "\nvalue=" + value + "\n\n");
    }
    ASSERT_EQ(link_closed, wait_for_stderr(backend_, link_closed));
    Synchronised();
  }
  EXPECT_EQ(from == "usual" ? t.symptom : t.cured, t.observe());
}

INSTANTIATE_TEST_SUITE_P(Traits, SwitcherTraitTest,
                         testing::Combine(testing::Range(0, 5),
                                          testing::Values("usual", "key in file", "key by set")));

}  // namespace

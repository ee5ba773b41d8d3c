#include "base/config.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <tuple>

#include "base/flags.h"
#include "parent_client/temp_dir.h"
#include "support/scripted_switcher.h"

namespace {

class ConfigTest : public SwitcherTest {};

TEST_F(ConfigTest, ReadsLines) {
  temp_dir dir;
  const std::string x(4093, 'x'), y(903, 'y');
  const std::pair<std::string, config_map> cases[] = {
      {"ip address = 192.168.1.20\n", {{"ip address", "192.168.1.20"}}},
      {"inputs =16\n", {{"inputs", "16"}}},
      {"inputs= 16\n", {{"inputs", " 16"}}},  // a blank after "=" goes only with one before
      {"  k  =  v\n", {{"  k ", " v"}}},
      {"= v\nk=a=b # no comment", {{"", " v"}, {"k", "a=b # no comment"}}},
      {"port=7\r\nport=8\r\n", {{"port", "7\r\n8\r"}}},
      {" #k=v\n#inputs=3\n\ninputs 3\n", {{" #k", "v"}}},
      {"a=" + x + "b=" + y + "\n", {{"a", x}, {"b", y}}},  // 5000 bytes split at 4095
      {std::string("\0k=v\n", 5), {}},
  };
  for (const auto& [text, expected] : cases) {
    SCOPED_TRACE(text.substr(0, 40));
    config_map map;
    ASSERT_EQ(0, read_configuration(map, dir.write("r.cfg", text)));
    EXPECT_EQ(expected, map);
  }
  // A key seeded empty takes the file's value without a separator.
  config_map map{{"inputs", ""}, {"outputs", ""}};
  ASSERT_EQ(0, read_configuration(map, dir.write("r.cfg", "inputs=3\n")));
  EXPECT_EQ((config_map{{"inputs", "3"}, {"outputs", ""}}), map);
  // Error paths follow: a directory opens but cannot be read.
  EXPECT_EQ(-1, read_configuration(map, dir.path + "/missing.cfg"));
  EXPECT_EQ(-1, read_configuration(map, dir.path));
}

TEST_F(ConfigTest, AppliesKeysInTurn) {
  // key, value, then inputs, port, counts_changed and reconnect_requested after it
  const std::tuple<const char*, const char*, std::uint64_t, std::int32_t, bool, bool> cases[] = {
      {"inputs", "abc", 0, -1, false, false},  // values that change nothing raise nothing
      {"Inputs", "5", 0, -1, false, false},
      {"inputs ", "5", 0, -1, false, false},
      {"port", "", 0, -1, false, false},
      {"inputs", " 16\r", 16, -1, true, false},
      {"inputs", "-1", UINT64_MAX, -1, true, false},
      {"inputs", "4294967297", 1, -1, true, false},  // cut to 32 bits
      {"port", "2000x", 1, 2000, true, true},
      {"port", "2000", 1, 2000, false, false},
      {"ip address", "10.0.0.1", 1, 2000, true, true},
      {"ip address", "10.0.0.1", 1, 2000, false, false},
      {"ip address", "10.0.0.1\n10.0.0.2", 1, 2000, true, true},
  };
  for (const auto& [key, value, inputs, port, changed, reconnect] : cases) {
    SCOPED_TRACE(std::string(key) + "=" + value);
    clear_flag(process_flag::counts_changed);
    clear_flag(process_flag::reconnect_requested);
    apply_config_key(key, value);
    EXPECT_EQ(inputs, configured_inputs());
    EXPECT_EQ(port, router_port());
    EXPECT_EQ(changed, flag_is_set(process_flag::counts_changed));
    EXPECT_EQ(reconnect, flag_is_set(process_flag::reconnect_requested));
  }
  EXPECT_EQ("10.0.0.1\n10.0.0.2", router_address());
}

TEST_F(ConfigTest, ActiveCountsAreCapped) {
  const auto recompute = [] { return stderr_of([] { recompute_active_counts(0, 0); }); };
  clear_flag(process_flag::info_report_needed);  // so the check sees only what it raised
  apply_config_key("inputs", "300");
  apply_config_key("outputs", "-1");
  EXPECT_EQ("<DBG>Changing number of inputs to 256\n<DBG>Changing number of outputs to 256\n",
            recompute());
  EXPECT_EQ(256u, active_inputs());
  EXPECT_TRUE(flag_is_set(process_flag::info_report_needed));
  // The same counts again say nothing and raise nothing.
  clear_flag(process_flag::info_report_needed);
  apply_config_key("outputs", "256");
  EXPECT_EQ("", recompute());
  EXPECT_FALSE(flag_is_set(process_flag::info_report_needed));
  apply_config_key("outputs", "5");
  EXPECT_EQ("<DBG>Changing number of outputs to 5\n", recompute());
  EXPECT_EQ(5u, active_outputs());
}

// Each optional key takes its values, less trailing blanks and a CRLF file's
// "\r", or keeps its setting and says so in one line; what each setting does,
// the switchers' black-box tests show.
TEST_F(ConfigTest, OptionalKeysTakeTheirValuesOrSayWhatTheyKeep) {
  const std::tuple<const char*, const char*, const char*> cases[] = {  // key, value, kept
      {"status numbering", "base \r", nullptr}, {"status numbering", "Base", "base"},
      {"status level", "first", nullptr},        {"status level", "-1", "first"},
      {"handshake resend", "99", "100"},         {"flush while down", "drop", nullptr},
      {"active limit", "1025", "256"},           {"active limit", "300", nullptr},
      {"status level", "32", "first"},
  };
  for (const auto& [key, value, kept] : cases) {
    const std::string line =
        kept ? std::string("<WARN>Unknown value for \"") + key + "\", keeping \"" + kept + "\"\n" : "";
    EXPECT_EQ(line, stderr_of([&] { apply_config_key(key, value); })) << key << "=" << value;
  }
}

TEST_F(ConfigTest, DerivesMetadir) {
  const std::pair<const char*, const char*> cases[] = {
      {"r.cfg", ".tessikmeta.r.cfg"},
      {"/srv/gv/r.cfg", "/srv/gv/.tessikmeta.r.cfg"},
      {"/r", "/.tessikmeta.r"},
      {"a/b", "a/.tessikmeta.b"},
      {"", ""},
      {"/srv/gv/", ""},
      {"/", ""}};
  for (const auto& [path, metadir] : cases) EXPECT_EQ(metadir, derive_metadir(path)) << path;
}

}  // namespace

#include "frame/config.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "frame/flags.h"
#include "support/temp_file.h"

namespace {

class ConfigTest : public testing::Test {
 protected:
  void SetUp() override {
    reset_configuration();
    reset_process_flags();
    // Start with every flag down so each test sees only what it raised.
    clear_flag(process_flag::counts_changed);
    clear_flag(process_flag::info_report_needed);
  }

  config_map Read(const std::string& contents, config_map map = {}) {
    const std::string path = dir_.write("r.cfg", contents);
    EXPECT_EQ(0, read_configuration(map, path));
    return map;
  }

  // Recomputes the counts and returns what was written on standard error.
  std::string Recompute() {
    testing::internal::CaptureStderr();
    recompute_active_counts();
    return testing::internal::GetCapturedStderr();
  }

  temp_dir dir_;
};

TEST_F(ConfigTest, ReadsLines) {
  const std::string x4093(4093, 'x');
  const std::string y903(903, 'y');
  struct Case {
    const char* name;
    std::string contents;
    config_map expected;
  };
  const Case cases[] = {
      {"blank each side", "ip address = 192.168.1.20\n", {{"ip address", "192.168.1.20"}}},
      {"no blanks", "inputs=16\n", {{"inputs", "16"}}},
      {"blank before only", "inputs =16\n", {{"inputs", "16"}}},
      {"blank after only stays", "inputs= 16\n", {{"inputs", " 16"}}},
      {"two blanks each side", "a  =  b\n", {{"a ", " b"}}},
      {"leading blanks belong to key", "  k = v\n", {{"  k", "v"}}},
      {"equals first keeps blank", "= v\n", {{"", " v"}}},
      {"first equals splits", "k=a=b\n", {{"k", "a=b"}}},
      {"hash later is value", "k=v # not a comment\n", {{"k", "v # not a comment"}}},
      {"blank before hash is a key", " #k=v\n", {{" #k", "v"}}},
      {"CR stays in value", "port=7\r\noutputs=2\r\n", {{"outputs", "2\r"}, {"port", "7\r"}}},
      {"repeated key joined", "ip address=a\nip address=b\n", {{"ip address", "a\nb"}}},
      {"no final newline", "k=v", {{"k", "v"}}},
      {"long line splits at 4095", "a=" + x4093 + "b=" + y903 + "\n", {{"a", x4093}, {"b", y903}}},
      // Skipped lines follow.
      {"comment", "#inputs=3\n", {}},
      {"empty lines", "\n\n", {}},
      {"no equals", "inputs 3\n", {}},
      {"NUL first", std::string("\0k=v\n", 5), {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.expected, Read(c.contents));
  }
}

TEST_F(ConfigTest, SeededKeyTakesFileValue) {
  const config_map map = Read("inputs=3\n", {{"inputs", ""}, {"outputs", ""}});
  EXPECT_EQ((config_map{{"inputs", "3"}, {"outputs", ""}}), map);
}

TEST_F(ConfigTest, ReadFailures) {
  config_map map;
  EXPECT_EQ(-1, read_configuration(map, dir_.path + "/missing.cfg"));
  // A directory opens but cannot be read.
  EXPECT_EQ(-1, read_configuration(map, dir_.path));
}

TEST_F(ConfigTest, AppliesKeys) {
  constexpr std::uint64_t all_ones = UINT64_MAX;
  struct Case {
    const char* key;
    const char* value;
    std::uint64_t inputs;
    std::int32_t port;
    bool counts_changed;
  };
  const Case cases[] = {
      {"inputs", "16", 16, -1, true},
      {"inputs", " 16", 16, -1, true},
      {"inputs", "16\r", 16, -1, true},
      {"inputs", "-1", all_ones, -1, true},
      {"inputs", "4294967297", 1, -1, true},  // cut to 32 bits
      {"port", "2000x", 0, 2000, true},
      // Values that leave the setting unchanged raise nothing.
      {"inputs", "", 0, -1, false},
      {"inputs", "abc", 0, -1, false},
      {"port", "", 0, -1, false},
      {"Inputs", "5", 0, -1, false},
      {"inputs ", "5", 0, -1, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.key) + "=" + c.value);
    SetUp();
    apply_config_key(c.key, c.value);
    EXPECT_EQ(c.inputs, configured_inputs());
    EXPECT_EQ(c.port, router_port());
    EXPECT_EQ(c.counts_changed, flag_is_set(process_flag::counts_changed));
    EXPECT_EQ(c.port != -1, flag_is_set(process_flag::reconnect_requested));
  }
}

TEST_F(ConfigTest, AddressChangeAsksForReconnect) {
  apply_config_key("ip address", "10.0.0.1");
  EXPECT_EQ("10.0.0.1", router_address());
  EXPECT_TRUE(flag_is_set(process_flag::reconnect_requested));
  EXPECT_TRUE(flag_is_set(process_flag::counts_changed));

  clear_flag(process_flag::reconnect_requested);
  clear_flag(process_flag::counts_changed);
  apply_config_key("ip address", "10.0.0.1");
  EXPECT_FALSE(flag_is_set(process_flag::reconnect_requested));
  EXPECT_FALSE(flag_is_set(process_flag::counts_changed));

  apply_config_key("ip address", "10.0.0.1\n10.0.0.2");
  EXPECT_TRUE(flag_is_set(process_flag::reconnect_requested));
}

TEST_F(ConfigTest, ActiveCountsAreCapped) {
  apply_config_key("inputs", "300");
  apply_config_key("outputs", "-1");
  EXPECT_EQ("<DBG>Changing number of inputs to 256\n<DBG>Changing number of outputs to 256\n",
            Recompute());
  EXPECT_EQ(256u, active_inputs());
  EXPECT_EQ(256u, active_outputs());
  EXPECT_TRUE(flag_is_set(process_flag::info_report_needed));

  // The same inputs again change nothing and say nothing.
  clear_flag(process_flag::info_report_needed);
  EXPECT_EQ("", Recompute());
  EXPECT_FALSE(flag_is_set(process_flag::info_report_needed));

  apply_config_key("outputs", "256");
  EXPECT_EQ("", Recompute());
  apply_config_key("outputs", "5");
  EXPECT_EQ("<DBG>Changing number of outputs to 5\n", Recompute());
  EXPECT_EQ(5u, active_outputs());
}

TEST_F(ConfigTest, DerivesMetadir) {
  struct Case {
    const char* path;
    const char* metadir;
  };
  const Case cases[] = {
      {"r.cfg", ".tessikmeta.r.cfg"},
      {"/srv/gv/r.cfg", "/srv/gv/.tessikmeta.r.cfg"},
      {"/r", "/.tessikmeta.r"},
      {"a/b", "a/.tessikmeta.b"},
      // Error paths follow.
      {"", ""},
      {"/srv/gv/", ""},
      {"/", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    EXPECT_EQ(c.metadir, derive_metadir(c.path));
  }
}

}  // namespace

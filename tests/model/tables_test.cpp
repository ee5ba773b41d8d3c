#include "model/tables.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "frame/config.h"
#include "frame/flags.h"

namespace {

using params = std::vector<std::string>;

router_message reply(const char* request, params p, bool ok = true) {
  router_message msg = make_router_request(request, std::move(p));
  msg.ok = ok;
  return msg;
}

router_message nq(params p) { return reply("NQ", std::move(p)); }

std::vector<std::string> names(const std::vector<router_entry>& table) {
  std::vector<std::string> out;
  for (const router_entry& e : table) out.push_back(e.name);
  return out;
}

class RouterTablesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    reset_router_tables();
    reset_configuration();
    reset_process_flags();
    clear_flag(process_flag::counts_changed);
    clear_flag(process_flag::info_report_needed);
  }

  // The switcher's tables: 4 destinations and 8 sources, both numbered from
  // 1 (gaps fill the middle); then the configured outputs.
  static void known_tables(const char* outputs) {
    update_dest_info({nq({"ID", "2", "D1", "1", "x", "0", "D4", "4", "x", "0"})});
    update_sources_info({nq({"IS", "2", "S1", "1", "x", "0", "S8", "8", "x", "0"})});
    apply_config_key("outputs", outputs);
    recompute_active_counts();
  }

  // Runs fn and returns what it wrote on standard error.
  template <typename Fn>
  static std::string stderr_of(Fn fn) {
    testing::internal::CaptureStderr();
    fn();
    return testing::internal::GetCapturedStderr();
  }
};

TEST_F(RouterTablesTest, DestinationScan) {
  struct Case {
    const char* name;
    std::vector<router_message> response;
    std::vector<std::string> names;
    std::uint64_t base;
    const char* log;
  };
  const params out123{"ID", "3", "Out1", "1", "x", "7", "Out2", "2", "x", "0", "Out3", "3", "x", "5"};
  const Case cases[] = {
      {"three groups", {nq(out123)}, {"Out1", "Out2", "Out3"}, 1,
       "<DBG>Outputs range from 1-3\n"},
      {"first accepted number is the base",
       {nq({"ID", "3", "Out3", "3", "x", "5", "Out1", "1", "x", "7", "Out2", "2", "x", "0"})},
       {"Out3"}, 3, "<DBG>Outputs range from 3-3\n"},
      {"gap", {nq({"D", "2", "A", "0", "x", "0", "F", "5", "x", "0"})},
       {"A", "", "", "", "", "F"}, 0, "<DBG>Outputs range from 0-5\n"},
      {"count beyond the groups present",
       {nq({"ID", "A", "a", "8", "x", "0", "b", "9", "x", "0", "c", "A", "x"})}, {"a", "b"}, 8,
       "<DBG>Outputs range from 8-9\n"},
      {"continued list, another kind ends the scan",
       {nq({"ID", "1", "a", "1", "x", "0"}), nq({"ID", "1", "b", "2", "x", "0"}),
        nq({"IS", "1", "c", "3", "x", "0"}), nq({"ID", "1", "d", "4", "x", "0"})},
       {"a", "b"}, 1, "<DBG>Outputs range from 1-2\n"},
      {"later group at the same position wins",
       {nq({"ID", "2", "a", "1", "x", "0", "b", "1", "x", "0"})}, {"b"}, 1,
       "<DBG>Outputs range from 1-1\n"},
      {"unusable messages are skipped",
       {reply("NQ", {"ID", "1", "bad", "1", "x", "0"}, false),
        reply("QN", {"ID", "1", "req", "1", "x", "0"}), nq({"ID"}), nq({"ID", "0"}),
        nq({"ID", "1", "ok", "2", "x", "0"})},
       {"ok"}, 2, "<DBG>Outputs range from 2-2\n"},
      // Error paths follow
      {"empty response", {}, {}, 0, ""},
      {"only 400 dropped", {nq({"ID", "1", "big", "400", "x", "0"})}, {}, 0, ""},
      {"cut short", {nq({"ID", "1", "a", "1", "x"})}, {}, 0, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    reset_process_flags();
    const std::string log = stderr_of([&] { update_dest_info(c.response); });
    EXPECT_EQ(c.names, names(router_outputs_info()));
    EXPECT_EQ(c.base, output_base());
    EXPECT_EQ(c.names.size(), router_output_count());
    EXPECT_EQ(c.log, log);
    // Raised on every call, an empty table included.
    EXPECT_TRUE(flag_is_set(process_flag::counts_changed));
    EXPECT_TRUE(flag_is_set(process_flag::outputs_report_needed));
    EXPECT_TRUE(flag_is_set(process_flag::info_report_needed));
    EXPECT_FALSE(flag_is_set(process_flag::inputs_report_needed));
  }
}

TEST_F(RouterTablesTest, GroupValuesAndLimits) {
  update_dest_info({nq({"ID", "3", "Out1", "1", "x", "7", "Out2", "2", "x", "0", "Out3", "3",
                        "x", "FFFFFFFF5"})});
  ASSERT_EQ(3u, router_outputs_info().size());
  EXPECT_EQ(7u, router_outputs_info()[0].group_value);
  EXPECT_EQ(0u, router_outputs_info()[1].group_value);
  EXPECT_EQ(0xFFFFFFF5u, router_outputs_info()[2].group_value);  // low 32 bits

  // Position 1023 is the last one a table can hold; 1024 above the base is not.
  update_dest_info({nq({"D", "3", "first", "0", "x", "0", "last", "3FF", "x", "0", "over",
                        "400", "x", "0"})});
  EXPECT_EQ(1024u, router_output_count());
  EXPECT_EQ("last", router_outputs_info()[1023].name);
  update_dest_info({nq({"D", "2", "one", "1", "x", "0", "far", "3FF", "x", "0"})});
  EXPECT_EQ(1023u, router_output_count());
}

TEST_F(RouterTablesTest, SourceScan) {
  const std::string log = stderr_of([] {
    update_sources_info({nq({"S", "2", "In1", "1", "x", "0", "In2", "2", "x", "0"}),
                         nq({"ID", "1", "dest", "3", "x", "0"})});
  });
  EXPECT_EQ((std::vector<std::string>{"In1", "In2"}), names(router_inputs_info()));
  EXPECT_EQ(1u, input_base());
  EXPECT_EQ(2u, router_input_count());
  EXPECT_EQ("<DBG>Inputs range from 1-2\n", log);
  EXPECT_TRUE(flag_is_set(process_flag::inputs_report_needed));
  EXPECT_FALSE(flag_is_set(process_flag::outputs_report_needed));
  EXPECT_TRUE(router_outputs_info().empty());
}

TEST_F(RouterTablesTest, LevelScan) {
  update_levels_info({nq({"L", "2", "Video", "0", "x", "Audio", "1F", "x"})});
  ASSERT_EQ(32u, router_levels().size());
  EXPECT_EQ("Video", router_levels()[0]);
  EXPECT_EQ("Audio", router_levels()[31]);
  EXPECT_EQ("", router_levels()[1]);
  EXPECT_EQ(0x80000001u, router_level_mask());

  // A level of 32 is dropped; a reply of another kind ends the scan.
  update_levels_info({nq({"L", "2", "Big", "20", "x", "Key", "2", "x"}),
                      nq({"ID", "1", "Out", "1", "x"}), nq({"L", "1", "Late", "3", "x"})});
  EXPECT_EQ((std::vector<std::string>{"", "", "Key"}), router_levels());
  EXPECT_EQ(0x4u, router_level_mask());
  EXPECT_FALSE(flag_is_set(process_flag::counts_changed));
}

TEST_F(RouterTablesTest, RouteStatus) {
  struct Case {
    const char* name;
    const char* configured_outputs;
    router_message msg;
    const char* log;
    bool appended;
  };
  // Both tables start at switcher number 1: 4 destinations, 8 sources.
  const Case cases[] = {
      {"inside the tables", "10", reply("IQ", {"3", "0", "0", "0", "6"}),
       "<DBG>Accepting route change output=2 input=5\n", true},
      {"beyond the active outputs", "2", reply("IQ", {"3", "0", "0", "0", "6"}),
       "<DBG>Accepting route change output=2 input=5\n", false},
      // Error paths follow
      {"destination beyond the table", "10", reply("IQ", {"5", "0", "0", "0", "1"}), "", false},
      {"destination below the base", "10", reply("IQ", {"0", "0", "0", "0", "1"}), "", false},
      {"source beyond the table", "10", reply("IQ", {"1", "0", "0", "0", "9"}), "", false},
      {"four parameters", "10", reply("IQ", {"1", "0", "0", "0"}), "", false},
      {"not ok", "10", reply("IQ", {"1", "0", "0", "0", "1"}, false), "", false},
      {"other command", "10", reply("QI", {"1", "0", "0", "0", "1"}), "", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    reset_router_tables();
    known_tables(c.configured_outputs);
    const std::string log = stderr_of([&] { update_route_status({c.msg}); });
    EXPECT_EQ(c.log, log);
    ASSERT_EQ(!c.appended, accepted_route_changes_empty());
    if (!c.appended) continue;
    const route_change r = take_accepted_route_change();
    EXPECT_EQ(5, r.input);
    EXPECT_EQ(2, r.output);
    EXPECT_TRUE(accepted_route_changes_empty());
  }
}

}  // namespace

// The switcher's tables as the name, level and route status replies build them.
#include "model/tables.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/config.h"
#include "base/flags.h"
#include "support/scripted_switcher.h"

namespace {

router_message reply(const char* request, strings p, bool ok = true) {
  router_message msg = make_router_request(request, std::move(p));
  msg.ok = ok;
  return msg;
}

router_message nq(strings p) { return reply("NQ", std::move(p)); }

class RouterTablesTest : public SwitcherTest {};

TEST_F(RouterTablesTest, DestinationScan) {
  struct Case {
    std::vector<router_message> response;
    strings names;
    std::uint64_t base;
    const char* log;
  };
  strings up_to_3ff(1024);
  up_to_3ff.front() = "first";
  up_to_3ff.back() = "last";
  const Case cases[] = {
      {{nq({"ID", "3", "Out1", "1", "x", "7", "Out2", "2", "x", "0", "Out3", "3", "x", "5"})},
       {"Out1", "Out2", "Out3"}, 1, "<DBG>Outputs range from 1-3\n"},
      // The first accepted number is the base; lower numbers are dropped.
      {{nq({"ID", "3", "Out3", "3", "x", "5", "Out1", "1", "x", "7", "Out2", "2", "x", "0"})},
       {"Out3"}, 3, "<DBG>Outputs range from 3-3\n"},
      {{nq({"D", "2", "A", "0", "x", "0", "F", "5", "x", "0"})}, {"A", "", "", "", "", "F"}, 0,
       "<DBG>Outputs range from 0-5\n"},
      // The count is larger than the groups present.
      {{nq({"ID", "A", "a", "8", "x", "0", "b", "9", "x", "0", "c", "A", "x"})}, {"a", "b"}, 8,
       "<DBG>Outputs range from 8-9\n"},
      // A continued list; a bad message is skipped, another kind ends the scan.
      {{nq({"ID", "1", "a", "1", "x", "0"}), reply("NQ", {"ID", "1", "bad", "1", "x", "0"}, false),
        nq({"ID", "1", "b", "2", "x", "0"}), nq({"IS", "1", "c", "3", "x", "0"}),
        nq({"ID", "1", "d", "4", "x", "0"})},
       {"a", "b"}, 1, "<DBG>Outputs range from 1-2\n"},
      // A repeated number: the later name wins. A reply without a group count is skipped.
      {{nq({"ID"}), nq({"ID", "2", "A", "1", "x", "0", "B", "1", "x", "0"})}, {"B"}, 1,
       "<DBG>Outputs range from 1-1\n"},
      // Positions reach 3FF above the base.
      {{nq({"D", "3", "first", "0", "x", "0", "last", "3FF", "x", "0", "over", "400", "x", "0"})},
       up_to_3ff, 0, "<DBG>Outputs range from 0-1023\n"},
      // Error paths follow
      {{}, {}, 0, ""},
      {{nq({"ID", "1", "big", "400", "x", "0"})}, {}, 0, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.log);
    clear_flag(process_flag::counts_changed);
    clear_flag(process_flag::outputs_report_needed);
    EXPECT_EQ(c.log, stderr_of([&] { update_dest_info(c.response); }));
    strings names;
    for (const router_entry& e : router_outputs_info()) names.push_back(e.name);
    EXPECT_EQ(c.names, names);
    EXPECT_EQ(c.base, output_base());
    // Raised for an empty table too.
    EXPECT_TRUE(flag_is_set(process_flag::counts_changed));
    EXPECT_TRUE(flag_is_set(process_flag::outputs_report_needed));
  }
}

TEST_F(RouterTablesTest, LevelScan) {
  update_levels_info({nq({"L", "2", "Video", "0", "x", "Audio", "1F", "x"})});
  ASSERT_EQ(32u, router_levels().size());
  EXPECT_EQ("Video", router_levels()[0]);
  EXPECT_EQ("Audio", router_levels()[31]);
  EXPECT_EQ(0x80000001u, router_level_mask());
  update_levels_info({nq({"L", "2", "Big", "20", "x", "Key", "2", "x"})});
  EXPECT_EQ((strings{"", "", "Key"}), router_levels());  // level 32 is dropped
  EXPECT_EQ(0x4u, router_level_mask());                 // nothing kept from the scan before
  update_levels_info({nq({"L", "2", "B", "1", "x", "A", "0", "x"})});
  EXPECT_EQ((strings{"A", "B"}), router_levels());
}

TEST_F(RouterTablesTest, RouteStatus) {
  // Both tables number from 1: 4 destinations and 8 sources.
  update_dest_info({nq({"ID", "2", "D1", "1", "x", "0", "D4", "4", "x", "0"})});
  update_sources_info({nq({"IS", "2", "S1", "1", "x", "0", "S8", "8", "x", "0"})});
  apply_config_key("outputs", "10");
  recompute_active_counts(router_input_count(), router_output_count());
  const router_message inside = reply("IQ", {"3", "0", "0", "0", "6"});
  const std::string accepted = "<DBG>Accepting route change output=2 input=5\n";
  EXPECT_EQ(accepted, stderr_of([&] { update_route_status({inside}); }));
  const route_change r = take_accepted_route_change();
  EXPECT_EQ(5, r.input);
  EXPECT_EQ(2, r.output);
  // Error paths follow: destination beyond the table or below its base,
  // source beyond its table, four parameters, not a good message.
  for (const router_message& m :
       {reply("IQ", {"5", "0", "0", "0", "1"}), reply("IQ", {"0", "0", "0", "0", "1"}),
        reply("IQ", {"1", "0", "0", "0", "9"}), reply("IQ", {"1", "0", "0", "0"}),
        reply("IQ", {"1", "0", "0", "0", "1"}, false)}) {
    SCOPED_TRACE(describe_router_message(m));
    EXPECT_EQ("", stderr_of([&] { update_route_status({m}); }));
    EXPECT_TRUE(accepted_route_changes_empty());
  }
  // Beyond the active outputs it is logged, not queued.
  apply_config_key("outputs", "2");
  recompute_active_counts(router_input_count(), router_output_count());
  EXPECT_EQ(accepted, stderr_of([&] { update_route_status({inside}); }));
  EXPECT_TRUE(accepted_route_changes_empty());
}

}  // namespace

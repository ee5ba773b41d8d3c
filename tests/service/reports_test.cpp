#include "service/reports.h"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>

#include "frame/config.h"
#include "frame/flags.h"
#include "model/tables.h"
#include "parent/channel.h"
#include "service/switcher_peer.h"

namespace {

class ReportsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    reset_configuration();
    reset_process_flags();
    reset_router_tables();
    ASSERT_EQ(0, pipe2(parent_in, O_NONBLOCK));
    ASSERT_EQ(0, pipe2(parent_out, O_NONBLOCK));
    parent_channel_use_fds_for_test(parent_in[0], parent_out[1]);
  }

  void TearDown() override {
    for (int fd : {parent_in[0], parent_in[1], parent_out[0], parent_out[1]}) close(fd);
  }

  // Everything the backend has written to its parent so far.
  std::string written() {
    std::string out;
    char buf[4096];
    for (ssize_t n; (n = read(parent_out[0], buf, sizeof buf)) > 0;) out.append(buf, n);
    return out;
  }

  static void set_counts(const char* inputs, const char* outputs) {
    apply_config_key("inputs", inputs);
    apply_config_key("outputs", outputs);
    recompute_active_counts();
  }

  int parent_in[2] = {-1, -1};
  int parent_out[2] = {-1, -1};
};

TEST_F(ReportsTest, NamesReportsListWholeTables) {
  load_switcher_tables(1, 12);
  set_counts("2", "2");  // the active counts do not limit these reports
  send_outputs_report();
  std::string want = "*COMMAND=outputs\n*TYPE=message\n";
  for (int i : {0, 1, 10, 11, 2, 3, 4, 5, 6, 7, 8, 9}) {
    want += "o" + std::to_string(i) + ".name=D" + std::to_string(i) + "\n";
  }
  EXPECT_EQ(want + "\n", written());

  reset_router_tables();
  send_inputs_report();
  EXPECT_EQ("*COMMAND=inputs\n*TYPE=message\n\n", written());
}

TEST_F(ReportsTest, RoutingReportKeepsTheLatestChangePerOutput) {
  struct Case {
    const char* name;
    std::vector<route_change> accepted;  // input, output
    std::string report;
  };
  const Case cases[] = {
      {"latest wins, none for no input", {{3, 5}, {-1, 2}, {7, 5}},
       "*COMMAND=outputs\n*TYPE=message\no2.input.all=none\no5.input.all=7\n\n"},
      {"fields in bytewise order", {{1, 10}, {2, 9}},
       "*COMMAND=outputs\n*TYPE=message\no10.input.all=1\no9.input.all=2\n\n"},
      // Error paths follow
      {"nothing waiting", {}, ""},
  };
  set_counts("32", "32");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    for (const route_change& r : c.accepted) accept_route_change(r.output, r.input);
    send_routing_report();
    EXPECT_EQ(c.report, written());
    EXPECT_TRUE(accepted_route_changes_empty());
  }

  // A change accepted while 64 outputs were active is dropped once only 32
  // are: the report is still sent, without fields.
  set_counts("32", "64");
  accept_route_change(40, 1);
  set_counts("32", "32");
  send_routing_report();
  EXPECT_EQ("*COMMAND=outputs\n*TYPE=message\n\n", written());
}

}  // namespace

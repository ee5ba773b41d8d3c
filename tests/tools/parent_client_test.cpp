// The parent-side client on its own: children that write a lot never stall
// it, stopping takes the gentlest way that works, and reports become tables.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "parent_client/child.h"
#include "parent_client/report_tables.h"

namespace {

constexpr int wait_ms = 15000;

TEST(ParentClientTest, ChildWritingFloodsWhileReadingIsServedWithoutStalling) {
  // It fills its standard error far past a pipe's capacity before it reads
  // anything, then echoes more input than a pipe holds: with either side
  // waiting for the other, neither would ever finish.
  child_process c;
  ASSERT_TRUE(child_start(c, "/bin/sh", {"sh", "-c", "head -c 1000000 /dev/zero >&2; cat"}));
  const std::string input(1000000, 'x');
  child_write(c, input);
  EXPECT_TRUE(child_wait([&c] { return c.out_buf.size() == 1000000; }, wait_ms));
  EXPECT_EQ(1000000u, c.err_buf.size());
  child_close_input(c);
  EXPECT_EQ(0, child_wait_exit(c, wait_ms));
  EXPECT_EQ(input, c.out_buf);
}

TEST(ParentClientTest, StopEndsInputFirstAndSignalsOnlyWhenThatFails) {
  struct Case {
    const char* script;
    std::string end;
  };
  const Case cases[] = {
      {"cat >/dev/null", "exit status 0"},
      {"trap 'exit 3' TERM; while :; do sleep 0.05; done", "exit status 3"},
      {"trap '' TERM; exec </dev/null; while :; do sleep 0.05; done", "killed by signal 9 (Killed)"},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.script);
    child_process c;
    c.end_of_input_ms = 300;
    ASSERT_TRUE(child_start(c, "/bin/sh", {"sh", "-c", k.script}));
    child_stop(c);
    EXPECT_EQ(k.end, child_describe_end(c));
  }
  child_process missing;
  EXPECT_FALSE(child_start(missing, "/nonexistent/program", {"program"}));
}

parent_message record(const std::string& command, std::vector<std::string> lines) {
  parent_message m;
  m.type = "message";
  m.command = command;
  for (const std::string& l : lines) parent_message_parse_line(m, l);
  return m;
}

TEST(ParentClientTest, ReportsBecomeTablesAndRoutingReportsListChanges) {
  report_tables t;
  std::vector<route_seen> changes;
  tables_apply(t, record("info", {"inputs=4", "outputs=3"}), changes);
  tables_apply(t, record("outputs", {"o0.name=OUT 1", "o1.name=Studio B", "o2.name=OUT 3"}),
               changes);
  tables_apply(t, record("inputs", {"i0.name=CAM 1", "i3.name=Mic"}), changes);
  tables_apply(t, record("outputs", {"o0.input.all=3", "o1.input.all=none"}), changes);
  // A second report changes only what differs; fields that do not parse are
  // left out, and a reply with the same command is no report.
  tables_apply(t, record("outputs", {"o0.input.all=3", "o1.input.all=2", "o2.input.all=x",
                                     "o-1.input.all=1", "ox.input.all=1"}),
               changes);
  parent_message reply = record("outputs", {"o2.input.all=1"});
  reply.type = "reply";
  tables_apply(t, reply, changes);

  ASSERT_EQ(3u, changes.size());
  EXPECT_EQ(0, changes[0].output);
  EXPECT_EQ(tables_unknown, changes[0].before);
  EXPECT_EQ(3, changes[0].after);
  EXPECT_EQ(tables_no_input, changes[1].after);
  EXPECT_EQ(tables_no_input, changes[2].before);
  EXPECT_EQ(2, changes[2].after);
  EXPECT_EQ((std::map<long, long>{{0, 3}, {1, 2}}), t.routes);
  EXPECT_EQ(3, tables_count(t, "outputs"));
  EXPECT_EQ(std::vector<long>{1}, tables_named(t, true, "Studio B"));
  EXPECT_EQ(std::vector<long>{3}, tables_named(t, false, "Mic"));
  EXPECT_TRUE(tables_named(t, false, "Studio B").empty());
  // A names report lists the whole table: names it leaves out are gone.
  tables_apply(t, record("inputs", {"i0.name=CAM 1"}), changes);
  EXPECT_EQ("", tables_name(t, false, 3));
}

}  // namespace

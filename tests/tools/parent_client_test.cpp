// The parent-side client on its own: stopping a child takes the gentlest way
// that works.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "parent_client/child.h"

namespace {

TEST(ParentClientTest, StopEndsInputFirstAndSignalsOnlyWhenThatFails) {
  const std::pair<const char*, const char*> cases[] = {
      {"cat >/dev/null", "exit status 0"},
      {"trap 'exit 3' TERM; while :; do sleep 0.05; done", "exit status 3"},
      {"trap '' TERM; exec </dev/null; while :; do sleep 0.05; done", "killed by signal 9 (Killed)"},
  };
  for (const auto& [script, end] : cases) {
    SCOPED_TRACE(script);
    child_process c;
    c.end_of_input_ms = 300;
    ASSERT_TRUE(child_start(c, "/bin/sh", {"sh", "-c", script}));
    child_stop(c);
    EXPECT_EQ(end, child_describe_end(c));
  }
  child_process missing;
  EXPECT_FALSE(child_start(missing, "/nonexistent/program", {"program"}));
}

}  // namespace

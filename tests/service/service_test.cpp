// The command service against a switcher on a loopback socket and a parent on
// pipes: the route queue's "TI" batches and the dispatcher's requests, some
// of them arriving while another request waits on the switcher.
#include <sys/ioctl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <tuple>

#include "base/config.h"
#include "base/flags.h"
#include "model/tables.h"
#include "router/connection.h"
#include "router/exchange.h"
#include "service/dispatcher.h"
#include "service/reports.h"
#include "service/route_queue.h"
#include "support/scripted_switcher.h"

namespace {

// Both tables numbered from base, and count active inputs and outputs.
void load_tables(const char* base, const char* count) {
  router_message dests = make_router_request("NQ", {"D", "1", "x", base, "x", "0"});
  router_message sources = make_router_request("NQ", {"S", "1", "x", base, "x", "0"});
  dests.ok = sources.ok = true;
  update_dest_info({dests});
  update_sources_info({sources});
  apply_config_key("inputs", count);
  apply_config_key("outputs", count);
  recompute_active_counts(router_input_count(), router_output_count());
}

// Requests as the parent writes them, and the plain replies to them.
std::string route(const std::string& id, const std::string& fields) {
  return "*COMMAND=route output\n*TYPE=command\n*ID=" + id + "\n" + fields + "\n";
}
std::string routed(const std::string& id) {
  return "*COMMAND=route output\n*TYPE=reply\n*ID=" + id + "\n\n";
}
std::string report(const std::string& id) {
  return "*COMMAND=report\n*TYPE=command\n*ID=" + id + "\nwhat=outputs\n\n";
}
std::string reported(const std::string& id) { return "*TYPE=reply\n*ID=" + id + "\n\n"; }

// The ids of the records in out, in order.
strings ids_of(const std::string& out) {
  strings ids;
  for (std::size_t at = 0; (at = out.find("*ID=", at)) != std::string::npos; at += 4) {
    ids.push_back(out.substr(at + 4, out.find('\n', at) - at - 4));
  }
  return ids;
}

class CommandServiceTest : public SwitcherTest {
 protected:
  void SetUp() override {
    SwitcherTest::SetUp();
    load_tables("1", "16");
  }

  // Brings the link up with the synchronisation done.
  static void LinkUp() {
    switcher_link_up();
    clear_flag(process_flag::sync_needed);
  }

  // Adds the changes, flushes, and returns what the switcher got meanwhile.
  static strings Flush(const std::vector<route_change>& changes) {
    const std::size_t before = sw.heard.size();
    for (const route_change& c : changes) add_route_change(c);
    flush_route_changes();
    return SentSince(before);
  }

  // The frames the switcher received from index before on.
  static strings SentSince(std::size_t before) {
    switcher_step();
    return strings(sw.heard.begin() + before, sw.heard.end());
  }

  // Writes request text to the backend's input and serves messages until it
  // is read; returns what the backend wrote back.
  std::string Request(const std::string& text) {
    EXPECT_EQ(static_cast<ssize_t>(text.size()), write(parent_.in[1], text.data(), text.size()));
    for (std::size_t i = 0; i < text.size() + 4; ++i) poll_parent_message();
    return parent_pipes_output(parent_);
  }
};

// Each batch paces 66 ms per command sent, 750 ms at most, counted from its
// start, which also arms the queue timeout 5 s ahead.
TEST_F(CommandServiceTest, OneTakeInputPerOutputInAscendingOrder) {
  struct Case {
    const char* name;
    std::vector<route_change> changes;  // input, output
    strings sent;
  };
  Case all{"every output, pacing capped", {}, {}};
  for (int i = 0; i < 16; ++i) {
    all.changes.push_back({1, i});
    char line[16];
    std::snprintf(line, sizeof line, "TI %X 2", i + 1);
    all.sent.push_back(line);
  }
  const Case cases[] = {
      {"both bases added", {{9, 4}}, {"TI 5 A"}},
      {"last change per output wins", {{9, 4}, {2, 4}}, {"TI 5 3"}},
      {"ascending output order", {{1, 7}, {1, 2}, {1, 5}}, {"TI 3 2", "TI 6 2", "TI 8 2"}},
      {"no input is one below the input base", {{-1, 0}}, {"TI 1 0"}},
      all,
      // Error paths follow
      {"output beyond the active outputs", {{1, 16}, {1, -1}}, {}},
      {"input below -1", {{-2, 3}}, {}},
  };
  LinkUp();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    set_flush_allow_for_test(0);
    const us_time_t before = monotonic_now_us();
    EXPECT_EQ(c.sent, Flush(c.changes));
    EXPECT_TRUE(send_queue_empty());
    // The queue timeout is armed a moment later than the pacing's own
    // reading of the clock.
    EXPECT_LE(before + 5'000'000, queue_timeout());
    EXPECT_GE(monotonic_now_us() + 5'000'000, queue_timeout());
    const double start = static_cast<double>(queue_timeout() - 5'000'000);
    EXPECT_NEAR(std::min(66'000.0 * static_cast<double>(c.sent.size()), 750'000.0),
                static_cast<double>(flush_allow()) - start, 1'000);
  }
  EXPECT_EQ("\x01\x4E\x30\x54\x49\x09\x35\x09\x41\x35\x44\x04", sw.raw.substr(0, 12));
  load_tables("0", "16");
  set_flush_allow_for_test(0);
  EXPECT_EQ(strings{"TI 0 FFFFFFFF"}, Flush({{-1, 0}}));
}

TEST_F(CommandServiceTest, HeldBackThenSentOrDropped) {
  EXPECT_EQ(strings{}, Flush({{9, 4}}));  // the link is down
  LinkUp();
  raise_flag(process_flag::sync_needed);
  EXPECT_EQ(strings{}, Flush({{8, 4}}));
  // No pacing time was set, so no delayed send: the next flush sends what
  // waited, its own change for the same output last.
  clear_flag(process_flag::sync_needed);
  delayed_flush_step();
  EXPECT_EQ(strings{"TI 5 3"}, Flush({{2, 4}}));

  // Too soon: the delayed-flush step sends once the pacing time has come.
  set_flush_allow_for_test(monotonic_now_us() + 900'000);
  testing::internal::CaptureStderr();
  EXPECT_EQ(strings{}, Flush({{9, 4}}));
  delayed_flush_step();
  set_flush_allow_for_test(monotonic_now_us());
  delayed_flush_step();
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_EQ(0u, log.find("<DBG>Route changes too soon, will flush later\n"
                         "<DBG>Now sending delayed route changes\n")) << log;
  EXPECT_EQ(strings{"TI 5 A"}, SentSince(1));

  // Five seconds after a batch started, whatever still waits is dropped.
  raise_flag(process_flag::sync_needed);
  EXPECT_EQ(strings{}, Flush({{1, 1}}));
  add_route_change({2, 2});
  set_queue_timeout_for_test(monotonic_now_us() - 1);
  delayed_flush_step();
  EXPECT_TRUE(send_queue_empty() && queued_route_changes().empty());
  EXPECT_EQ(0u, queue_timeout());
}

TEST_F(CommandServiceTest, DispatcherRepliesAndErrorTexts) {
  EXPECT_EQ(reported("5"), Request(report("5")));  // with the link down there is no status loop
  // Error paths follow; the black-box tests show the others.
  EXPECT_EQ("*COMMAND=set\n*ERROR=Unknown command set\n*TYPE=reply\n*ID=9\n\n",
            Request("*COMMAND=set\n*TYPE=command\n*ID=9\nname=outputs\nvalue=1\n\n"));
  EXPECT_EQ(16u, configured_outputs());  // the "set" command did not apply

  const std::pair<std::string, std::string> routes[] = {  // fields, "input>output" queued
      {"control=all\nfrom input=3\nqueue=add\nto output=1\n", "3>1"},
      {"control=none\nfrom input=3\nqueue=add\nto output=1\n", "-1>1"},
      {"from input=5ab\nqueue=add\nto output=15\n", "5>15"},
      {"from input=4294967298\nqueue=add\nto output=2\n", "2>2"},  // cut to 32 bits
      // Error paths follow
      {"from input= 3\nqueue=add\nto output=2\n", "-1>2"},
      {"from input=16ab\nqueue=add\nto output=2\n", "-1>2"},  // not below the active inputs
      {"from input=a3\nqueue=add\nto output=2\n", "-1>2"},
      {"from input=1\nqueue=discard\nto output=2\n", ""},
      {"from input=1\nqueue=add\nto output=16\n", ""},
  };
  for (const auto& [fields, queued] : routes) {
    SCOPED_TRACE(fields);
    reset_route_queues();
    EXPECT_EQ(routed("3"), Request(route("3", fields)));
    std::string got;
    for (const route_change& r : queued_route_changes()) {
      got += std::to_string(r.input) + ">" + std::to_string(r.output);
    }
    EXPECT_EQ(queued, got);
  }
}

// A flush served while a batch waits on its first "TI" runs a batch of its
// own. The waiting batch then skips the output that one sent, which adds
// nothing to the pacing, and still sends the rest of its slots.
TEST_F(CommandServiceTest, NestedBatchKeepsTheNewestChangeLast) {
  struct Case {
    const char* name;
    std::vector<route_change> outer;  // input, output
    const char* nested_output;        // changed to input 9 while the outer batch waits
    strings sent;
  };
  const Case cases[] = {
      {"skipped between slots still sent", {{1, 0}, {1, 2}, {1, 3}}, "2",
       {"TI 1 2", "TI 3 A", "TI 4 2"}},
      {"every slot left is skipped", {{1, 0}, {1, 5}}, "5", {"TI 1 2", "TI 6 A"}},
      {"sent before the nested batch, so sent again", {{1, 0}, {1, 3}}, "0",
       {"TI 1 2", "TI 1 A", "TI 4 2"}},
  };
  LinkUp();
  // The switcher answers once the nested flush is read; a second nested
  // exchange would drain the outer batch's answer as stale. Reading the
  // nested requests in one wait cycle starts both batches close together,
  // out of reach of the outer one's 750 ms cap.
  sw.hold_fd = parent_.in[0];
  set_parent_poll_handler(+[] {
    switcher_step();
    for (int i = 0; i < 512; ++i) poll_parent_message();
  });
  const std::string flush = route("2", "queue=flush\n");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    set_flush_allow_for_test(0);
    for (const route_change& r : c.outer) add_route_change(r);
    const std::size_t before = sw.heard.size();
    static_cast<void>(Request(
        flush + route("1", "from input=9\nqueue=add\nto output=" + std::string(c.nested_output) + "\n") +
        flush));
    EXPECT_EQ(c.sent, SentSince(before));
    // The nested batch restarted the pacing and armed the queue timeout at
    // its own start; 66 ms follow for every command actually sent.
    const double start = static_cast<double>(queue_timeout() - 5'000'000);
    EXPECT_NEAR(66'000.0 * static_cast<double>(c.sent.size()),
                static_cast<double>(flush_allow()) - start, 1'000);
  }
}

// Changes wait while nothing may be sent, and go out, or are dropped, as the
// counts and timers say once they may.
TEST_F(CommandServiceTest, WaitingChangesAndTimers) {
  // Flushed while the link is down, after a batch set a pacing time: the
  // delayed-flush step sends them once the link and the synchronisation are back.
  LinkUp();
  EXPECT_EQ(strings{"TI 2 2"}, Flush({{1, 1}}));
  (void)stderr_of(connection_close);
  EXPECT_EQ(strings{}, Flush({{2, 4}}));
  add_route_change({3, 5});
  EXPECT_EQ(routed("1"), Request(route("1", "queue=discard\n")));
  EXPECT_TRUE(queued_route_changes().empty());
  EXPECT_FALSE(send_queue_empty());  // a discard leaves flushed changes alone
  sw.heard.clear();
  LinkUp();
  testing::internal::CaptureStderr();
  raise_flag(process_flag::sync_needed);
  set_flush_allow_for_test(monotonic_now_us());
  delayed_flush_step();
  EXPECT_EQ(strings{}, SentSince(0));
  clear_flag(process_flag::sync_needed);
  delayed_flush_step();
  EXPECT_EQ(strings{"TI 5 3"}, SentSince(0));
  const std::string log = testing::internal::GetCapturedStderr();
  const std::string delayed = "<DBG>Now sending delayed route changes\n";
  const std::size_t first = log.find(delayed);
  EXPECT_NE(std::string::npos, log.find(delayed, first + 1)) << log;

  // Outputs no longer active when the batch starts are dropped, not sent.
  set_flush_allow_for_test(0);
  add_route_change({1, 4});
  load_tables("1", "4");
  EXPECT_EQ(strings{}, Flush({{1, 5}}));
  EXPECT_TRUE(send_queue_empty());

  // With no outputs nothing is queried or sent, and flushed changes wait.
  load_tables("400", "0");  // one position past the last: both tables empty
  set_flush_allow_for_test(0);
  const std::size_t before = SentSince(0).size();
  EXPECT_EQ(strings{}, Flush({{1, 0}}));
  EXPECT_FALSE(send_queue_empty());
  EXPECT_EQ(reported("2"), Request(report("2")));
  // Nor while a synchronisation is pending.
  load_tables("1", "4");
  raise_flag(process_flag::sync_needed);
  EXPECT_EQ(reported("3"), Request(report("3")));
  EXPECT_EQ(strings{}, SentSince(before));
}

// "report outputs" read while another request waits on the switcher starts no
// loop inside that wait: the main loop's step runs one loop for every such
// request waiting, then answers them oldest first. One read at the top shares
// that loop; with no loop possible, all are answered at once, still in order.
TEST_F(CommandServiceTest, StatusRequestsReadInAWaitShareOneLoopAtTheTop) {
  struct Case {
    const char* name;
    bool link_down;     // the link closes after the nested requests
    std::string top;    // read at the top; none: the main loop's step answers
    strings ids;        // the replies' ids, in order
  };
  const Case cases[] = {
      {"the main loop's step", false, "", {"81", "82"}},
      {"a request read at the top shares the loop", false, report("83"), {"81", "82", "83"}},
      // Error paths follow: no loop possible, all answered at once, in order.
      {"a request read at the top", true, report("84"), {"81", "82", "84"}},
      {"the main loop's step", true, "", {"81", "82"}},
  };
  load_tables("1", "2");
  set_parent_poll_handler(+[] { switcher_step(); serve_parent_during_wait(); });
  sw.hold_fd = parent_.in[0];  // the switcher answers once the nested requests are read
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LinkUp();
    add_route_change({1, 1});
    set_flush_allow_for_test(0);
    std::size_t before = sw.heard.size();
    EXPECT_EQ(routed("70"), Request(route("70", "queue=flush\n") + report("81") + report("82")));
    EXPECT_EQ(strings{"TI 2 2"}, SentSince(before));
    EXPECT_EQ(2u, deferred_status_requests());
    if (c.link_down) (void)stderr_of(connection_close);
    before = sw.heard.size();
    if (c.top.empty()) answer_deferred_status_requests();
    EXPECT_EQ(c.ids, ids_of(Request(c.top)));
    const strings loop = c.link_down ? strings{} : strings{"QI 1 0", "QI 2 0"};
    EXPECT_EQ(loop, SentSince(before));
    EXPECT_EQ(0u, deferred_status_requests());
  }
}

// Flushes read in every wait cycle nest a batch each, down to the limit;
// there the waits read nothing, and every request is still answered once
// and every change sent once as the nesting unwinds. The switcher answers
// one frame at a time, at the limit or once the input is all read: an
// answer waiting when a nested exchange starts would be drained as stale.
TEST_F(CommandServiceTest, NestingStopsAtTheLimitAndNothingIsLost) {
  static int deepest = 0;
  static int input_fd = -1;
  deepest = 0;
  input_fd = parent_.in[0];
  LinkUp();
  sw.one_frame_per_step = true;
  set_parent_poll_handler(+[] {
    deepest = std::max(deepest, nested_wait_depth());
    set_flush_allow_for_test(0);  // so every flush read starts a batch at once
    for (int i = 0; i < 512; ++i) serve_parent_during_wait();
    int unread = 0;
    ioctl(input_fd, FIONREAD, &unread);
    if (nested_wait_depth() == max_nested_waits || unread == 0) switcher_step();
  });
  std::string text;
  strings ids;
  strings sent;
  for (int o = 0; o < 10; ++o) {
    const std::string n = std::to_string(o);
    text += route("a" + n, "from input=1\nqueue=add\nto output=" + n + "\n") +
            route("f" + n, "queue=flush\n");
    ids.insert(ids.end(), {"a" + n, "f" + n});
    char take[16];
    std::snprintf(take, sizeof take, "TI %X 2", o + 1);
    sent.push_back(take);
  }
  const std::string log = stderr_of([&] {
    EXPECT_EQ(static_cast<ssize_t>(text.size()), write(parent_.in[1], text.data(), text.size()));
    for (std::size_t i = 0; i < text.size(); ++i) poll_parent_message();
  });
  EXPECT_EQ(max_nested_waits, deepest);
  EXPECT_EQ(std::string::npos, log.find("<ERR>")) << log;
  strings replied = ids_of(parent_pipes_output(parent_));
  strings heard = SentSince(0);
  for (strings* list : {&ids, &sent, &replied, &heard}) std::sort(list->begin(), list->end());
  EXPECT_EQ(ids, replied);
  EXPECT_EQ(sent, heard);
}

// Timers implausibly far ahead are cleared with a warning; nearer ones stay.
TEST_F(CommandServiceTest, TimersTooFarAheadAreCleared) {
  const std::tuple<us_time_t, us_time_t, std::string> cases[] = {  // queue, flush ahead; lines
      {10'500'000, 950'000, "<WARN>Queue timeout too far into the future\n"},
      {9'500'000, 1'050'000, "<WARN>Flush allow too far into the future\n"},
  };
  for (const auto& [queue_ahead, flush_ahead, lines] : cases) {
    SCOPED_TRACE(lines);
    const us_time_t now = monotonic_now_us();
    set_queue_timeout_for_test(now + queue_ahead);
    set_flush_allow_for_test(now + flush_ahead);
    EXPECT_EQ(lines, stderr_of(delayed_flush_step));
    EXPECT_EQ(queue_ahead > 10'000'000, queue_timeout() == 0);
    EXPECT_EQ(flush_ahead > 1'000'000, flush_allow() == 0);
  }
}

// One routing report per pass: the latest input of each active output, "none"
// for no input; changes for outputs no longer active are dropped.
TEST_F(CommandServiceTest, RoutingReport) {
  const std::vector<route_change> one{{3, 5}, {-1, 2}, {7, 5}, {1, 12}};
  const std::pair<const char*, std::string> cases[] = {
      {"16", "*COMMAND=outputs\n*TYPE=message\no12.input.all=1\no2.input.all=none\n"
             "o5.input.all=7\n\n"},
      {"5", "*COMMAND=outputs\n*TYPE=message\no2.input.all=none\n\n"},
      {"2", "*COMMAND=outputs\n*TYPE=message\n\n"},
  };
  for (const auto& [outputs, report] : cases) {
    SCOPED_TRACE(outputs);
    testing::internal::CaptureStderr();
    load_tables("1", "16");
    for (const route_change& c : one) accept_route_change(c.output, c.input);
    load_tables("1", outputs);
    send_routing_report();
    (void)testing::internal::GetCapturedStderr();
    EXPECT_EQ(report, Request(""));
    EXPECT_TRUE(accepted_route_changes_empty());
    send_routing_report();
    EXPECT_EQ("", Request(""));
  }
}

}  // namespace

// A busy or broken parent against the real backend and the switcher emulator:
// floods of requests, a parent that stops reading, oversized input and a
// slow switcher cost no tally, no link, no stack and no memory, and every
// request is still answered.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "parent_client/client.h"
#include "router/link_texts.h"

namespace {

constexpr us_time_t ms = 1000;
constexpr us_time_t sec = 1000 * ms;

// One backend against an emulator of its own.
struct rig {
  temp_dir dir;  // its files: each rig its own, as they start side by side
  child_process emu;
  parent_client backend;
  std::map<std::string, us_time_t> sent;  // request id -> when it was sent
  long stack_kib = -1;                    // VmStk once synchronised
  long peak_kib = -1;                     // VmHWM once synchronised
};

// The sanitizers' allocator keeps freed memory in quarantine, which would
// grow the backend's resident memory by whatever it ever freed.
[[maybe_unused]] const int without_quarantine = [] {
  const char* old = std::getenv("ASAN_OPTIONS");
  return setenv("ASAN_OPTIONS", (std::string(old ? old : "") + ":quarantine_size_mb=0").c_str(), 1);
}();

void start(rig& r, const std::string& name, const std::vector<std::string>& emu,
           const std::vector<std::string>& wrapper = {}) {
  const std::string cfg = client_start_emulated(r.emu, EMULATOR_PATH, emu, r.dir, 15000);
  ASSERT_FALSE(cfg.empty()) << name;
  ASSERT_TRUE(client_start(r.backend, DAEMON_PATH, {"--file", cfg}, wrapper)) << name;
}

// Names, inputs and a route for every output reported: the first
// synchronisation is over.
bool synced(rig* r) {
  client_take_output(r->backend);
  const report_tables& t = r->backend.tables;
  return t.have_inputs && t.have_outputs && tables_count(t, "outputs") > 0 &&
         static_cast<long>(t.routes.size()) >= tables_count(t, "outputs");
}

// How long each request answered waited for its reply, by id.
std::map<std::string, us_time_t> waits(const rig& r) {
  std::map<std::string, us_time_t> waited;
  for (const client_record& rec : r.backend.records) {
    const auto sent = r.sent.find(rec.msg.id);
    if (rec.msg.type == "reply" && sent != r.sent.end()) waited.emplace(sent->first, rec.at - sent->second);
  }
  return waited;
}

void expect_stack_flat(const rig& r, const char* name) {
  EXPECT_EQ("running", child_describe_end(r.backend.child)) << name;
  EXPECT_LE(child_status_kib(r.backend.child, "VmStk"), r.stack_kib + 16) << name;
}

std::string diag_lines(const rig& r, const std::string& text) {
  std::string lines;
  for (const client_diag& d : r.backend.diags) {
    if (d.text.find(text) != std::string::npos) lines += d.text + "\n";
  }
  return lines;
}

// The scenarios of the long test, each driven by a tick of the shared clock
// and checked at the end.

// "report outputs" every period until end, on 64 outputs whose status
// answers come 25 ms late: a loop takes 2.2 s. Once a second for 60 s, every
// reply within 15 s, and a route taken on the switcher's panel at 5 s
// reported within 10 s. Every 0.4 s for 150 s, as fast as the channel takes
// records while the backend waits (two bytes a 10 ms cycle), replies fall
// behind: on a 256 KiB stack the backend must live, with its stack as it was.
struct report_flood : rig {
  us_time_t period;
  us_time_t end;
  us_time_t reply_limit;
  bool take;  // a route taken on the switcher at 5 s
  us_time_t next = 0;
  us_time_t taken_at = 0;
};

void tick(report_flood& f, us_time_t t0, us_time_t now) {
  if (now < t0 + f.end && now >= f.next) {
    f.sent[client_send(f.backend, client_report_request("outputs"))] = now;
    f.next = std::max(f.next, t0) + f.period;
  }
  if (f.take && f.taken_at == 0 && now >= t0 + 5 * sec) {
    child_write(f.emu, "take 4 9\n");  // switcher numbers: output 3, input 8
    f.taken_at = now;
  }
}

void check(const report_flood& f, const char* name) {
  us_time_t longest = 0;
  for (const auto& [id, waited] : waits(f)) longest = std::max(longest, waited);
  EXPECT_EQ(f.sent.size(), waits(f).size()) << name << ": requests without a reply";
  EXPECT_LE(longest, f.reply_limit) << name << ": longest wait";
  expect_stack_flat(f, name);
  EXPECT_EQ("", diag_lines(f, "<ERR>")) << name;
  EXPECT_EQ(link_connected, diag_lines(f, "<NOTE>Connection")) << name;
  if (!f.take) return;
  const auto& records = f.backend.records;
  const auto routed = std::find_if(records.begin(), records.end(), [&f](const client_record& rec) {
    return rec.at >= f.taken_at && parent_field(rec.msg, "o3.input.all") == "8";
  });
  ASSERT_NE(records.end(), routed) << "the route taken on the switcher never reached the parent";
  EXPECT_LE(routed->at - f.taken_at, 10 * sec);
}

// A parent that stops reading for 90 s while the switcher renames a source
// and a destination every 250 ms, each rename re-reading a names table of
// 256 long names, and that meanwhile sends 50,000 requests: more replies
// than the output buffer holds, so the backend must stop reading. Then it
// reads again: every reply comes, in order, and the reports that waited
// meanwhile come as a few, not as a backlog.
struct stalled_parent : rig {
  std::size_t queued = 0;  // requests handed to the pipe so far
  us_time_t next_rename = 0;
  std::uint64_t renames = 0;
  us_time_t resumed = 0;
  long cpu_ms = -1;  // once synchronised
};
constexpr std::size_t stalled_requests = 50'000;

std::string long_name(const char* kind, std::uint64_t n) {
  std::string name = std::string(kind) + " " + std::to_string(n) + " ";
  name.resize(60, 'x');
  return name;
}

void tick(stalled_parent& p, us_time_t t0, us_time_t now) {
  while (p.queued < stalled_requests && p.backend.child.to_write.size() < 65536) {
    (void)client_send(p.backend, client_report_request("inputs"));
    ++p.queued;
  }
  if (p.resumed == 0 && now >= p.next_rename) {
    const std::string n = std::to_string(1 + p.renames % 256);
    ++p.renames;
    child_write(p.emu, "rename output " + n + " " + long_name("OUT", p.renames) + "\n" +
                           "rename input " + n + " " + long_name("IN", p.renames) + "\n");
    p.next_rename = now + 250 * ms;
  }
  if (p.resumed == 0 && now >= t0 + 90 * sec) {
    EXPECT_TRUE(p.queued < stalled_requests || !p.backend.child.to_write.empty())
        << "the backend read all requests while its replies stayed unread";
    EXPECT_LT(child_status_kib(p.backend.child, "VmHWM") - p.peak_kib, 8 * 1024);
    // A loop that spun on the waiting input would have used the whole 90 s.
    EXPECT_LT(child_cpu_ms(p.backend.child) - p.cpu_ms, 30'000);
    p.backend.child.out_paused = false;
    p.resumed = now;
  }
}

void check(const stalled_parent& p) {
  // Every reply, once and in order; and until the last of them, only the few
  // names reports that waited in the pipe and the output buffer.
  std::uint64_t expected = 1;
  int names_reports = 0;
  for (const client_record& rec : p.backend.records) {
    if (rec.msg.type == "reply") {
      ASSERT_EQ(std::to_string(expected), rec.msg.id);
      if (++expected > stalled_requests) break;
    } else if (rec.at >= p.resumed && tables_report_kind(rec.msg) == "outputs") {
      ++names_reports;
    }
  }
  EXPECT_EQ(stalled_requests + 1, expected);
  EXPECT_LE(names_reports, 6);
}

// A switcher that answers 80 ms late under a flood of "add" and "flush"
// requests for 60 s, 1 to 8 changes to a flush, as many as the backend takes
// (64 unanswered at most, so that the last is answered soon after): a short
// group read while a long batch waits nests a batch of its own, and for
// every output the newest change flushed must be the last the switcher
// receives.
struct batch_flood : rig {
  std::uint64_t rng = 7;
  std::map<long, long> newest;  // output -> input of the newest change flushed
  std::uint64_t requests = 0;
  std::uint64_t replied = 0;
};

void tick(batch_flood& f, us_time_t t0, us_time_t now) {
  for (; !f.backend.records.empty(); f.backend.records.pop_front()) {
    f.replied += f.backend.records.front().msg.type == "reply" ? 1 : 0;
  }
  while (now < t0 + 60 * sec && f.requests - f.replied < 64) {
    f.rng = f.rng * 6364136223846793005u + 1442695040888963407u;
    const int changes = 1 + static_cast<int>(f.rng >> 61);
    for (int i = 0; i < changes; ++i) {
      f.rng = f.rng * 6364136223846793005u + 1442695040888963407u;
      const long output = static_cast<long>(f.rng >> 60);
      const long input = static_cast<long>((f.rng >> 56) & 15);
      (void)client_send(f.backend, client_route_request("add", input, output));
      f.newest[output] = input;
    }
    (void)client_send(f.backend, client_route_request("flush"));
    f.requests += changes + 1;
  }
}

// Asked at the end, 90 s after the last flush: a delayed batch may still be
// due after its reply (750 ms of pacing and 16 changes at the switcher's
// 80 ms, stretched many times on a loaded machine).
void check(batch_flood& f) {
  ASSERT_EQ(f.requests, f.replied) << "the last flush was not answered";
  child_write(f.emu, "routes\n");
  ASSERT_TRUE(child_wait([&f] { return f.emu.out_buf.find("\nok\n") != std::string::npos; }, 15000));
  // The switcher's numbers are the positions plus 1.
  for (const auto& [output, input] : f.newest) {
    const std::string route = std::to_string(output + 1) + " " + std::to_string(input + 1);
    EXPECT_NE(std::string::npos, ("\n" + f.emu.out_buf).find("\nroute " + route + "\n")) << route;
  }
  expect_stack_flat(f, "batch flood");
}

TEST(ParentLimitsTest, FloodsAndAStalledParentCostNoTallyLinkStackOrMemory) {
  std::string outputs;
  std::string inputs;
  for (int n = 1; n <= 256; ++n) {
    outputs += long_name("OUT", n) + "\n";
    inputs += long_name("IN", n) + "\n";
  }
  const std::vector<std::string> late{"--outputs", "64", "--inputs", "64", "--delay", "25"};
  report_flood loops{{}, sec, 60 * sec, 15 * sec, true};
  report_flood stacked{{}, 400 * ms, 150 * sec, 60 * sec, false};
  stalled_parent stalled;
  batch_flood batches;
  start(loops, "loops", late);
  start(stacked, "stacked", late, {"/usr/bin/prlimit", "--stack=262144"});
  start(stalled, "stalled",
        {"--outputs", "256", "--inputs", "256", "--output-names", stalled.dir.write("o", outputs),
         "--input-names", stalled.dir.write("i", inputs)});
  start(batches, "batches", {"--outputs", "16", "--inputs", "16", "--delay", "80"});
  ASSERT_FALSE(HasFatalFailure());
  rig* const rigs[] = {&loops, &stacked, &stalled, &batches};
  ASSERT_TRUE(child_wait([&rigs] { return std::count_if(rigs, rigs + 4, synced) == 4; }, 60000));
  // The stack and memory once synchronised are the baseline.
  for (rig* r : rigs) {
    r->stack_kib = child_status_kib(r->backend.child, "VmStk");
    r->peak_kib = child_status_kib(r->backend.child, "VmHWM");
  }
  stalled.cpu_ms = child_cpu_ms(stalled.backend.child);
  stalled.backend.child.out_paused = true;

  const us_time_t t0 = monotonic_now_us();
  const auto all_answered = [&] {
    return waits(stacked).size() == stacked.sent.size() && waits(loops).size() == loops.sent.size();
  };
  for (us_time_t now = t0; now < t0 + 150 * sec || (!all_answered() && now < t0 + 200 * sec);
       now = monotonic_now_us()) {
    tick(loops, t0, now);
    tick(stacked, t0, now);
    tick(stalled, t0, now);
    tick(batches, t0, now);
    child_pump(5);
    for (rig* r : rigs) client_take_output(r->backend);
  }
  check(loops, "once a second");
  check(stacked, "every 0.4 s on a 256 KiB stack");
  check(stalled);
  check(batches);
}

// Input far beyond any request, fed as fast as the backend reads it, with
// no switcher: the resident memory grows by less than 3 MiB, and the
// request after it is answered; doc/limits.md has what it measured.
TEST(ParentLimitsTest, HugeFieldAndHalfAMillionAddsCostNoMemory) {
  struct Case {
    const char* name;
    std::size_t pieces;
    std::function<std::string(std::size_t)> piece;  // the input, piece by piece
    std::size_t replies;                             // "route output" replies wanted
    const char* warning;                             // diagnostic lines wanted
  };
  const std::string field(65536, 'v');
  const Case cases[] = {
      {"a 32 MiB field", 514,
       [&](std::size_t i) {
         return i == 0 ? std::string("*COMMAND=set\n*TYPE=message\nname=x\nvalue=")
                       : i < 513 ? field : std::string("\n\n");
       },
       0, "<WARN>Dropping a parent record longer than 65536 bytes\n"},
      {"500,000 adds without a flush", 500'000,
       [](std::size_t i) {
         return "*TYPE=command\n*COMMAND=route output\nqueue=add\nto output=" +
                std::to_string(i % 64) + "\nfrom input=" + std::to_string(i % 61) + "\n\n";
       },
       500'000, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    rig r;
    ASSERT_TRUE(client_start(r.backend, DAEMON_PATH,
                             {"--file", r.dir.write("r.cfg", "inputs=64\noutputs=64\n")}));
    client_record info;
    ASSERT_TRUE(client_next_record(r.backend, 15000, info));
    const long peak = child_status_kib(r.backend.child, "VmHWM");
    std::size_t fed = 0;
    std::size_t routed = 0;
    std::string next;  // the request after the input
    bool next_answered = false;
    EXPECT_TRUE(child_wait([&] {
      while (fed < c.pieces && r.backend.child.to_write.size() < 65536) {
        client_send_text(r.backend, c.piece(fed++));
      }
      if (fed == c.pieces && next.empty()) {
        next = client_send(r.backend, client_report_request("inputs"));
      }
      client_take_output(r.backend);
      // Half a million replies are counted, not kept.
      for (; !r.backend.records.empty(); r.backend.records.pop_front()) {
        const parent_message& m = r.backend.records.front().msg;
        routed += m.command == "route output" ? 1 : 0;
        next_answered = next_answered || (!next.empty() && m.id == next);
      }
      return next_answered;
    }, 300000));
    EXPECT_EQ(c.replies, routed);
    EXPECT_LT(child_status_kib(r.backend.child, "VmHWM") - peak, 3 * 1024);
    EXPECT_EQ(c.warning, diag_lines(r, "<WARN>"));
    child_close_input(r.backend.child);
    EXPECT_EQ(0, child_wait_exit(r.backend.child, 15000));
  }
}

}  // namespace

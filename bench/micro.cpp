// Micro-benchmarks of the hot paths, run through Google Benchmark and
// collected into table rows.
#include "micro.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "parent/message.h"
#include "router/message.h"
#include "router/receive.h"
#include "switcher_emulator/emulator.h"
#include "table.h"

namespace {

// Google Benchmark wants at least this long per repetition; its median over
// the repetitions is reported, with their coefficient of variation.
constexpr double min_seconds = 0.1;
constexpr int repetitions = 5;

void bm_encode_frame(benchmark::State& state) {
  const router_message msg = make_router_request("TI", {"5", "3"});
  router_frame frame;
  for (auto _ : state) {
    const bool ok = encode_router_frame(msg, frame);
    benchmark::DoNotOptimize(ok);
    benchmark::DoNotOptimize(frame.data());
  }
  state.SetItemsProcessed(state.iterations());
}

// What a 256 x 256 switcher sends during a synchronisation and twenty quiet
// status requests, framed as on the wire.
std::string switcher_stream() {
  emulator_config cfg;
  cfg.outputs = 256;
  cfg.inputs = 256;
  emulator_state st;
  std::string error;
  if (!emulator_init(cfg, st, error)) return "";
  std::vector<router_message> requests = {make_router_request("QN", {"IS"}),
                                          make_router_request("QN", {"ID"})};
  for (int i = 1; i <= 256; ++i)
    requests.push_back(make_router_request("QI", {strf("%X", i), "0"}));
  for (int i = 0; i < 20; ++i) {
    requests.push_back(make_router_request("BK", {"F"}));
    requests.push_back(make_router_request("BK", {"f", "0"}));
    requests.push_back(make_router_request("QD"));
  }
  std::string stream;
  router_frame frame;
  for (const router_message& req : requests) {
    for (const router_message& m : emulator_answer(cfg, st, req)) {
      if (encode_router_frame(m, frame)) stream += frame.data();
    }
  }
  return stream;
}

// The parser's diagnostics go to /dev/null for the run, as its own line per
// message is part of what a message costs.
void bm_receive_bytes(benchmark::State& state) {
  const std::string stream = switcher_stream();
  const int saved = dup(STDERR_FILENO);
  const int null_fd = open("/dev/null", O_WRONLY);
  dup2(null_fd, STDERR_FILENO);
  for (auto _ : state) {
    // Fed in the pieces one read of the socket takes at most.
    for (std::size_t at = 0; at < stream.size(); at += 4096) {
      receive_bytes(stream.data() + at, std::min<std::size_t>(4096, stream.size() - at));
    }
    while (!received_queue_empty()) received_queue_drop_front();
  }
  dup2(saved, STDERR_FILENO);
  close(saved);
  close(null_fd);
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(stream.size()));
}

parent_message add_request() {
  parent_message m;
  m.command = "route output";
  m.type = "command";
  m.id = "1234";
  m.fields = {{"from input", "9"}, {"queue", "add"}, {"to output", "4"}};
  return m;
}

void bm_parent_serialise(benchmark::State& state) {
  const parent_message m = add_request();
  std::string out;
  for (auto _ : state) {
    out.clear();
    parent_message_serialise(m, out);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetItemsProcessed(state.iterations());
}

// The lines of one record as the channel hands them over: without line ends.
void bm_parent_parse(benchmark::State& state) {
  std::string text;
  parent_message_serialise(add_request(), text);
  std::vector<std::string> lines;
  for (std::size_t start = 0, nl; (nl = text.find('\n', start)) != std::string::npos;
       start = nl + 1) {
    if (nl > start) lines.push_back(text.substr(start, nl - start));
  }
  parent_message m;
  for (auto _ : state) {
    parent_message_clear(m);
    for (const std::string& line : lines) parent_message_parse_line(m, line);
    benchmark::DoNotOptimize(m.fields.size());
  }
  state.SetItemsProcessed(state.iterations());
}

// A connected pair of non-blocking TCP sockets on loopback, like the link to
// a switcher emulator on the same machine.
bool loopback_pair(int sv[2]) {
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  sv[0] = socket(AF_INET, SOCK_STREAM, 0);
  const bool ok = listener >= 0 && sv[0] >= 0 &&
                  bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
                  listen(listener, 1) == 0 &&
                  getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len) == 0 &&
                  connect(sv[0], reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
                  (sv[1] = accept(listener, nullptr, nullptr)) >= 0;
  if (listener >= 0) close(listener);
  return ok && fcntl(sv[0], F_SETFL, O_NONBLOCK) == 0;
}

// The system calls of one main-loop pass while parent input waits, and
// nothing else: select on the parent's three descriptors and an idle
// loopback socket, two one-byte reads of the input, two empty socket reads.
void bm_pass_syscalls(benchmark::State& state) {
  int in[2], out[2], err[2], sv[2];
  if (pipe2(in, O_NONBLOCK) != 0 || pipe2(out, O_NONBLOCK) != 0 || pipe2(err, O_NONBLOCK) != 0 ||
      !loopback_pair(sv)) {
    state.SkipWithError("no descriptors");
    return;
  }
  const std::string input(4096, 'x');
  std::size_t left = 0;
  char buf[4096];
  for (auto _ : state) {
    if (left < 2) {
      state.PauseTiming();
      left += static_cast<std::size_t>(write(in[1], input.data(), input.size()));
      state.ResumeTiming();
    }
    fd_set rd;
    FD_ZERO(&rd);
    int nfds = 0;
    for (int fd : {in[0], out[1], err[1], sv[0]}) {
      FD_SET(fd, &rd);
      nfds = std::max(nfds, fd + 1);
    }
    timeval tv{0, 250000};
    benchmark::DoNotOptimize(select(nfds, &rd, nullptr, nullptr, &tv));
    benchmark::DoNotOptimize(read(in[0], buf, 1));
    benchmark::DoNotOptimize(read(sv[0], buf, sizeof buf));
    benchmark::DoNotOptimize(read(sv[0], buf, sizeof buf));
    benchmark::DoNotOptimize(read(in[0], buf, 1));
    left -= 2;
  }
  for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1], sv[0], sv[1]}) close(fd);
  state.SetItemsProcessed(state.iterations());
}

// Collects the median and the coefficient of variation of every benchmark.
// Google Benchmark hands results only to a reporter object.
struct collecting_reporter : benchmark::BenchmarkReporter {
  std::vector<micro_result>* results = nullptr;

  bool ReportContext(const Context&) override { return true; }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Aggregate) continue;
      const std::string name = run.run_name.function_name;
      micro_result* r = nullptr;
      for (micro_result& existing : *results) {
        if (existing.name == name) r = &existing;
      }
      if (r == nullptr) {
        results->push_back({name});
        r = &results->back();
      }
      const auto bytes = run.counters.find("bytes_per_second");
      const auto items = run.counters.find("items_per_second");
      const bool is_bytes = bytes != run.counters.end();
      const double value = is_bytes                      ? bytes->second.value
                           : items != run.counters.end() ? items->second.value
                                                         : 0;
      r->per_bytes = is_bytes;
      if (run.aggregate_name == "median") r->rate = value;
      if (run.aggregate_name == "mean") r->mean = value;
      if (run.aggregate_name == "stddev") r->stddev = value;
    }
  }
};

}  // namespace

void run_micro_benchmarks(std::vector<micro_result>& results) {
  using benchmark::RegisterBenchmark;
  struct entry {
    const char* name;
    void (*fn)(benchmark::State&);
  };
  const entry entries[] = {{"encode_router_frame", bm_encode_frame},
                           {"receive_bytes", bm_receive_bytes},
                           {"parent_message_serialise", bm_parent_serialise},
                           {"parent_message_parse_line", bm_parent_parse},
                           {"pass_syscalls", bm_pass_syscalls}};
  for (const entry& e : entries) {
    RegisterBenchmark(e.name, e.fn)
        ->MinTime(min_seconds)
        ->Repetitions(repetitions)
        ->ReportAggregatesOnly(true);
  }
  collecting_reporter reporter;
  reporter.results = &results;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::ClearRegisteredBenchmarks();
  for (micro_result& r : results) r.cv = r.mean > 0 ? r.stddev / r.mean : 0;
}

// System calls per byte of parent input: the backend runs under strace while
// a burst of "add" records goes through its standard input.
#include "e2e.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "harness.h"

namespace {

// One pass reads two parent bytes (one in the pump, one in taking the next
// record) and makes five calls: select, two one-byte reads of descriptor 0,
// and one read of the switcher socket in each of the link step and the
// status polling step.
constexpr double pass_calls_per_byte = 5.0 / 2.0;

// The strace executable on PATH, or "".
std::string find_strace() {
  const char* path = std::getenv("PATH");
  std::string dirs = path != nullptr ? path : "/usr/bin:/bin";
  for (std::size_t start = 0; start <= dirs.size();) {
    std::size_t end = dirs.find(':', start);
    if (end == std::string::npos) end = dirs.size();
    const std::string candidate = dirs.substr(start, end - start) + "/strace";
    if (access(candidate.c_str(), X_OK) == 0) return candidate;
    start = end + 1;
  }
  return "";
}

// The name under which a trace line counts: the call, and for read and
// write whether it went to the parent's descriptors or elsewhere.
std::string call_kind(const std::string& line) {
  const std::size_t paren = line.find('(');
  if (paren == std::string::npos || line.rfind("---", 0) == 0 || line.rfind("+++", 0) == 0) {
    return "";
  }
  const std::string name = line.substr(0, paren);
  if (name != "read" && name != "write") return name;
  const std::string fd = line.substr(paren + 1, line.find(',', paren) - paren - 1);
  if (fd == "0" || fd == "1" || fd == "2") return name + " fd " + fd;
  return name + " socket";
}

// The result of a trace line, the text after its last " = ".
std::string call_result(const std::string& line) {
  const std::size_t eq = line.rfind(" = ");
  return eq == std::string::npos ? "" : line.substr(eq + 3);
}

// Counts the calls from the first parent byte read to the last reply written
// before the end of input. False when the trace does not hold that window.
bool count_window(const std::string& trace, std::map<std::string, long>& counts, long& total) {
  std::ifstream in(trace);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  std::size_t first = lines.size();
  std::size_t last = lines.size();
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const std::string& l = lines[i];
    const bool parent_read = l.rfind("read(0,", 0) == 0;
    if (first == lines.size() && parent_read && call_result(l) == "1") first = i;
    if (first < lines.size() && l.rfind("write(1,", 0) == 0) last = i;
    if (parent_read && call_result(l) == "0") break;
  }
  if (first >= lines.size() || last >= lines.size()) return false;
  total = 0;
  for (std::size_t i = first; i <= last; ++i) {
    const std::string kind = call_kind(lines[i]);
    if (kind.empty()) continue;
    ++counts[kind];
    ++total;
  }
  return true;
}

}  // namespace

void run_syscall_count(const bench_paths& paths, const e2e_options& opt,
                       std::vector<bench_row>& rows) {
  const std::string what = strf(
      "system calls per byte of parent input (strace, %d \"add\" records)", opt.traced_records);
  const std::string floor =
      strf("%.2f (one pass per 2 bytes, 5 calls a pass)", pass_calls_per_byte);
  const std::string strace = find_strace();
  if (strace.empty()) {
    rows.push_back({what, "not measured: strace is not installed", floor, "", "", "",
                    "apt-get install strace"});
    return;
  }
  progress("system calls under strace");
  bench_session s;
  const std::string trace = s.dir.path + "/trace";
  // Short strings keep the trace small; -qq leaves out attach and exit notes.
  if (!session_start_emulator(s, paths, {"--outputs", "16", "--inputs", "16"}) ||
      !session_start_backend(s, paths, {strace, "-qq", "-s", "4", "-o", trace}) ||
      session_wait_record(s, 0, ".input.all=", 60000) < 0) {
    rows.push_back(
        {what, "failed: no synchronisation under strace", floor, "", "", verdict(false), ""});
    return;
  }
  std::string text;
  std::string last_id;
  for (int i = 0; i < opt.traced_records; ++i) {
    last_id = "s" + std::to_string(i);
    text += add_record(last_id, i % 16, (i * 3) % 16);
  }
  const std::size_t from = s.records.size();
  if (!session_send(s, text) || session_wait_record(s, from, "*ID=" + last_id + "\n", 60000) < 0) {
    rows.push_back({what, "failed: no reply under strace", floor, "", "", verdict(false), ""});
    return;
  }
  // The end of input ends the backend, and strace writes out its trace.
  child_close_input(s.backend.child);
  (void)child_wait_exit(s.backend.child, 10000);
  std::map<std::string, long> counts;
  long total = 0;
  if (!count_window(trace, counts, total)) {
    rows.push_back(
        {what, "failed: no input window in the trace", floor, "", "", verdict(false), ""});
    return;
  }
  const double bytes = static_cast<double>(text.size());
  const double per_byte = static_cast<double>(total) / bytes;
  std::string notes;
  for (const auto& [kind, n] : counts) {
    if (!notes.empty()) notes += ", ";
    notes += strf("%s %.3f", kind.c_str(), static_cast<double>(n) / bytes);
  }
  rows.push_back({what, strf("%.3f per byte", per_byte), floor,
                  strf("%.3f", per_byte / pass_calls_per_byte), "the pass's calls, no more",
                  verdict(per_byte / pass_calls_per_byte <= 1.05), notes});
}

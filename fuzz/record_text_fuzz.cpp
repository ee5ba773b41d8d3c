// The parent record text form on bytes in memory: the record parser fed line
// by line as the channel feeds it, and the serialiser. fuzz_parent_record runs
// the same checks through the real channel and its pipes, a byte per system
// call; this target does without them, so it reaches millions of inputs.
//
// Checked, on every input:
// 1. The input as a stream: each record completed is carried (record_form.h);
//    its text form reads back as the same records, in order.
// 2. The input built into a record without the parser: its text reads back as
//    itself if and only if it is carried.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fuzz_support.h"
#include "parent/message.h"
#include "record_form.h"

namespace {

// The channel's read step over text: "\r" dropped, each line parsed, an empty
// line completing a complete record (an incomplete one keeps filling).
std::vector<parent_message> read_records(std::string_view text) {
  std::vector<parent_message> records;
  parent_message m;
  std::string line;
  for (char c : text) {
    if (c == '\r') continue;
    if (c != '\n') {
      line += c;
    } else if (!line.empty()) {
      parent_message_parse_line(m, line);
      line.clear();
    } else if (parent_message_complete(m)) {
      records.push_back(std::move(m));
      parent_message_clear(m);
    }
  }
  return records;
}

bool same_records(const std::vector<parent_message>& a, const std::vector<parent_message>& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (!fuzz::same_record(a[i], b[i])) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  fuzz::silence_diagnostics(argc, argv);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::vector<parent_message> records = read_records(input);
  std::string text;
  for (const parent_message& m : records) {
    FUZZ_CHECK(fuzz::carried(m));
    parent_message_serialise(m, text);
  }
  FUZZ_CHECK(same_records(records, read_records(text)));

  const parent_message built = fuzz::build_record(input);
  std::string built_text;
  parent_message_serialise(built, built_text);
  const std::vector<parent_message> back = read_records(built_text);
  FUZZ_CHECK((back.size() == 1 && fuzz::same_record(built, back[0])) == fuzz::carried(built));
  return 0;
}

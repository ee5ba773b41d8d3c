// The parent record text form on bytes in memory: the channel's record
// reader, its bound on a record's text included, and the serialiser.
// fuzz_parent_record runs the stream checks through the real channel and its
// pipes, a byte per system call; this target does without them, so it
// reaches millions of inputs.
//
// Checked, on every input:
// 1. The input as a stream through the reader at its own limit (far longer
//    than any input here): the records the channel's rules give, restated
//    here line by line, each carried (record_form.h); their text form reads
//    back as the same records.
// 2. The same stream at a small limit taken from the input's first byte: the
//    reader never holds more than the limit, and it completes and drops
//    exactly the records the restated rules do, each completed one carried
//    and no longer than the limit.
// 3. The input built into a record without the parser: its text reads back
//    as itself if and only if it is carried.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fuzz_support.h"
#include "parent/message.h"
#include "parent/record_reader.h"
#include "record_form.h"

namespace {

// The records a stream gave, and how many it dropped.
struct stream_run {
  std::vector<parent_message> records;
  std::size_t drops = 0;
};

bool record_empty(const parent_message& m) {
  return m.command.empty() && m.error.empty() && m.type.empty() && m.id.empty() &&
         m.fields.empty();
}

// The channel's rules, line by line: "\r" removed, each line parsed, an empty
// line completing a complete record (an incomplete one keeps filling). A
// record's text counts its lines with their line ends; a line that would
// take it past limit drops it, and the lines up to the next empty one are
// skipped. Lines without "=" count too, but an empty line after nothing but
// them starts the count afresh.
stream_run model_read(std::string_view text, std::size_t limit) {
  stream_run run;
  parent_message m;
  std::size_t used = 0;
  bool skipping = false;
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t nl = text.find('\n', start);
    const bool ended = nl != std::string_view::npos;
    std::string line(text.substr(start, (ended ? nl : text.size()) - start));
    std::erase(line, '\r');
    start = ended ? nl + 1 : text.size();
    if (skipping) {
      skipping = !(ended && line.empty());
    } else if (!line.empty() && used + line.size() + (ended ? 1 : 0) > limit) {
      ++run.drops;
      skipping = true;
      parent_message_clear(m);
      used = 0;
    } else if (!ended) {
      break;  // a last line without its end is still being read
    } else if (!line.empty()) {
      used += line.size() + 1;
      parent_message_parse_line(m, line);
    } else if (parent_message_complete(m)) {
      run.records.push_back(std::move(m));
      parent_message_clear(m);
      used = 0;
    } else if (record_empty(m)) {
      used = 0;
    }
  }
  return run;
}

stream_run read_with_limit(std::string_view text, std::size_t limit) {
  parent_record_reader r;
  r.limit = limit;
  stream_run run;
  for (char c : text) {
    switch (parent_reader_take(r, c)) {
      case parent_read_result::complete:
        run.records.push_back(r.record);
        parent_reader_restart(r);
        break;
      case parent_read_result::dropped:
        ++run.drops;
        break;
      case parent_read_result::more:
        break;
    }
    FUZZ_CHECK(r.used <= limit && r.line.size() <= r.used);
  }
  return run;
}

bool same_records(const std::vector<parent_message>& a, const std::vector<parent_message>& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (!fuzz::same_record(a[i], b[i])) return false;
  }
  return true;
}

std::string serialised(const parent_message& m) {
  std::string text;
  parent_message_serialise(m, text);
  return text;
}

void check_unbounded(std::string_view input) {
  const stream_run run = read_with_limit(input, parent_record_max_bytes);
  const stream_run model = model_read(input, parent_record_max_bytes);
  FUZZ_CHECK(run.drops == 0 && model.drops == 0);
  FUZZ_CHECK(same_records(run.records, model.records));
  std::string text;
  for (const parent_message& m : run.records) {
    FUZZ_CHECK(fuzz::carried(m));
    parent_message_serialise(m, text);
  }
  FUZZ_CHECK(same_records(run.records, model_read(text, parent_record_max_bytes).records));
}

void check_bounded(std::string_view input) {
  if (input.empty()) return;
  const std::size_t limit = 1 + static_cast<unsigned char>(input[0]) % 128;
  const stream_run run = read_with_limit(input, limit);
  const stream_run model = model_read(input, limit);
  FUZZ_CHECK(run.drops == model.drops);
  FUZZ_CHECK(same_records(run.records, model.records));
  for (const parent_message& m : run.records) {
    FUZZ_CHECK(fuzz::carried(m));
    // Read back from the lines that made it, none longer; less the empty
    // line that ends it.
    FUZZ_CHECK(serialised(m).size() <= limit + 1);
  }
}

void check_built_record(std::string_view input) {
  const parent_message built = fuzz::build_record(input);
  const std::vector<parent_message> back =
      model_read(serialised(built), parent_record_max_bytes).records;
  FUZZ_CHECK((back.size() == 1 && fuzz::same_record(built, back[0])) == fuzz::carried(built));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  fuzz::silence_diagnostics(argc, argv);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  // The stream checks at the reader's own limit hold only below it.
  if (size < parent_record_max_bytes) check_unbounded(input);
  check_bounded(input);
  check_built_record(input);
  return 0;
}

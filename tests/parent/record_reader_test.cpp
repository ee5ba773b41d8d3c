#include "parent/record_reader.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// Feeds text through a reader with the given limit; returns the records it
// completed in text form, a "#" for each record it dropped, and what it
// holds at the end.
struct Outcome {
  std::string events;
  std::size_t held = 0;  // line and record text held at most, at any byte
};

Outcome Read(const std::string& text, std::size_t limit) {
  parent_record_reader r;
  r.limit = limit;
  Outcome out;
  for (char c : text) {
    switch (parent_reader_take(r, c)) {
      case parent_read_result::complete:
        parent_message_serialise(r.record, out.events);
        parent_reader_restart(r);
        break;
      case parent_read_result::dropped:
        out.events += "#";
        break;
      case parent_read_result::more:
        break;
    }
    std::string held;
    parent_message_serialise(r.record, held);
    out.held = std::max(out.held, r.line.size() + held.size());
  }
  return out;
}

// A record's text counts its lines and their line ends, not "\r" and not the
// empty line ending it; one going past the limit is dropped, and the next
// record after the empty line that ends it reads as it would alone.
TEST(ParentRecordReaderTest, RecordsOverTheLimitAreDroppedAndReadingResumes) {
  const std::string next = "*COMMAND=b\n\n";
  const std::pair<std::string, std::string> cases[] = {  // input, then records or "#"
      {"*COMMAND=a\nk=12345\n\n", "*COMMAND=a\nk=12345\n\n"},       // 19 bytes: at the limit
      {"*COMMAND=a\r\nk=12345\r\n\r\n", "*COMMAND=a\nk=12345\n\n"},  // "\r" does not count
      {"*COMMAND=a\nk=123456\n\n" + next, "#*COMMAND=b\n\n"},       // its line end goes past
      {"*COMMAND=a\nk=1234567\n\n" + next, "#*COMMAND=b\n\n"},      // a byte goes past
      {"k=" + std::string(100, 'v') + "\nmore\n\n" + next, "#*COMMAND=b\n\n"},
      // A record of only a type and an id goes on over empty lines, and grows.
      {"*TYPE=x\n\n*TYPE=x\n\n*TYPE=x\n\n" + next, "#*COMMAND=b\n\n"},
      // Lines the parser ignores, ended by an empty line, start no record.
      {"no equals here\n\n" + next, "*COMMAND=b\n\n"},
      // Two records over the limit in a row: one drop each.
      {std::string(30, 'x') + "\n\n" + std::string(30, 'y') + "\n\n" + next, "##*COMMAND=b\n\n"},
  };
  for (const auto& [input, events] : cases) {
    SCOPED_TRACE(input);
    const Outcome out = Read(input, 19);
    EXPECT_EQ(events, out.events);
    EXPECT_LE(out.held, 19u + 1);
  }
}

}  // namespace

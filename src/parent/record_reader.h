#pragma once

#include <cstddef>
#include <string>

#include "parent/message.h"

// Turns the parent's input bytes into records, one byte at a time, with no
// descriptor of its own: lines are parsed into the record as they end, and an
// empty line completes a complete record. A record's text is bounded, so a
// parent streaming junk costs at most the bound: a record that grows past it
// is dropped, and reading resumes after the next empty line.

// The most text one record may have: its lines with their line ends, "\r"
// not counted, the empty line that ends it neither. Requests are a few
// hundred bytes at most.
constexpr std::size_t parent_record_max_bytes = std::size_t{64} * 1024;

struct parent_record_reader {
  parent_message record;       // the record being filled, or the complete one
  std::string line;            // the current line so far
  std::size_t used = 0;        // bytes of the record's text so far, line included
  bool dropping = false;       // skipping the rest of a record over the limit
  bool at_line_start = true;   // while dropping: no byte since the last line end
  std::size_t limit = parent_record_max_bytes;
};

enum class parent_read_result {
  more,      // nothing to hand out yet
  complete,  // reader.record is complete: take it, then parent_reader_restart
  dropped,   // the record in progress went over the limit and is gone
};

// Takes one input byte.
[[nodiscard]] parent_read_result parent_reader_take(parent_record_reader& r, char c);

// Empties the record, to fill the next one.
void parent_reader_restart(parent_record_reader& r);

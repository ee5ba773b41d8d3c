#include "parent/record_reader.h"

namespace {

// Forgets the record in progress. mid_line: the byte that went over the
// limit was inside a line, so the skipping starts there; otherwise a line
// end went over, and the next line may already be the empty one.
parent_read_result drop(parent_record_reader& r, bool mid_line) {
  parent_message_clear(r.record);
  r.line.clear();
  r.used = 0;
  r.dropping = true;
  r.at_line_start = !mid_line;
  return parent_read_result::dropped;
}

// While dropping, bytes are only counted as lines: the first empty line ends
// the dropped record.
parent_read_result skip(parent_record_reader& r, char c) {
  if (c != '\n') {
    r.at_line_start = false;
  } else {
    if (r.at_line_start) r.dropping = false;
    r.at_line_start = true;
  }
  return parent_read_result::more;
}

}  // namespace

parent_read_result parent_reader_take(parent_record_reader& r, char c) {
  if (c == '\r') return parent_read_result::more;  // removed wherever it stands
  if (r.dropping) return skip(r, c);
  if (c != '\n') {
    if (r.used >= r.limit) return drop(r, true);
    r.line += c;  // NUL included; the parser stops at it
    ++r.used;
    return parent_read_result::more;
  }
  if (!r.line.empty()) {
    if (r.used >= r.limit) return drop(r, false);
    ++r.used;
    parent_message_parse_line(r.record, r.line);
    r.line.clear();
    return parent_read_result::more;
  }
  // An empty line. After a record holding only a type and an id it completes
  // nothing, and the lines that follow add to the same record.
  if (parent_message_complete(r.record)) return parent_read_result::complete;
  // Lines the parser ignored left nothing behind (not even a type or an id):
  // they start no record.
  if (r.record.type.empty() && r.record.id.empty()) r.used = 0;
  return parent_read_result::more;
}

void parent_reader_restart(parent_record_reader& r) {
  parent_message_clear(r.record);
  r.used = 0;
}

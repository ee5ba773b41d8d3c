#pragma once

// What both parent record targets check against: the records the text form
// carries, and records built from raw input without the parser.
//
// Which records the text form carries: a record comes back unchanged from
// its text through the channel exactly when
// - it is complete (command, error or a field present), or the channel never
//   hands it out;
// - no field name holds "=", "\n", "\r" or NUL, and none is one of the
//   reserved names "*COMMAND", "*ERROR", "*TYPE", "*ID" (its line would set
//   that reserved string); an empty name is carried;
// - no value (reserved or field) holds "\r" or NUL, or starts with "\n" (an
//   empty first line is dropped on reading); values may hold and end with
//   "\n", and a field may have an empty value.
// Everything the parser produces has that form, so text read once is carried
// from then on.
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_support.h"
#include "parent/message.h"

namespace fuzz {

inline bool same_record(const parent_message& a, const parent_message& b) {
  return a.command == b.command && a.error == b.error && a.type == b.type && a.id == b.id &&
         a.fields == b.fields;
}

inline bool value_carried(const std::string& v) {
  return v.find_first_of(std::string_view("\r\0", 2)) == std::string::npos &&
         (v.empty() || v[0] != '\n');
}

inline bool name_carried(const std::string& n) {
  return n.find_first_of(std::string_view("=\n\r\0", 4)) == std::string::npos &&
         n != "*COMMAND" && n != "*ERROR" && n != "*TYPE" && n != "*ID";
}

inline bool carried(const parent_message& m) {
  if (!parent_message_complete(m)) return false;
  if (!value_carried(m.command) || !value_carried(m.error) || !value_carried(m.type) ||
      !value_carried(m.id)) {
    return false;
  }
  for (const auto& [name, value] : m.fields) {
    if (!name_carried(name) || !value_carried(value)) return false;
  }
  return true;
}

// The input cut at 0x1F bytes into command, error, type, id, then field names
// and values.
inline parent_message build_record(std::string_view input) {
  std::vector<std::string> parts;
  std::size_t start = 0;
  for (std::size_t cut = input.find('\x1f'); cut != std::string_view::npos;
       cut = input.find('\x1f', start)) {
    parts.emplace_back(input.substr(start, cut - start));
    start = cut + 1;
  }
  parts.emplace_back(input.substr(start));
  parts.resize(parts.size() < 4 ? 4 : parts.size() + parts.size() % 2);
  parent_message m;
  m.command = parts[0];
  m.error = parts[1];
  m.type = parts[2];
  m.id = parts[3];
  for (std::size_t i = 4; i < parts.size(); i += 2) m.fields[parts[i]] = parts[i + 1];
  return m;
}

}  // namespace fuzz

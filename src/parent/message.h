#pragma once

#include <map>
#include <string>
#include <string_view>

// One record of the parent channel. Every string may hold several lines joined
// by "\n"; an empty string means the field is absent.
struct parent_message {
  std::string command;  // "*COMMAND="
  std::string error;    // "*ERROR="
  std::string type;     // "*TYPE="
  std::string id;       // "*ID="
  std::map<std::string, std::string> fields;  // bytewise key order
};

// Empties the four strings and removes every field.
void parent_message_clear(parent_message& msg);

// Adds one input line (without its line end, "\r" already removed) to msg.
// The first "=" splits name and value; a line without "=" is ignored. Text
// after a NUL byte is not examined.
void parent_message_parse_line(parent_message& msg, std::string_view line);

// Appends the complete text form of msg, ending with its empty line, to out.
void parent_message_serialise(const parent_message& msg, std::string& out);

// A record is complete when its command, error or fields are non-empty.
[[nodiscard]] bool parent_message_complete(const parent_message& msg);

// The value of a named field, or an empty string when it is absent.
[[nodiscard]] const std::string& parent_field(const parent_message& msg, const std::string& name);

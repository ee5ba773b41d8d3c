#include "parent/message.h"

#include <cstddef>

namespace {

const std::string empty_text;

// The four reserved names. A line is tested against them, in this order, with
// the "=" included, so "*COMMANDX=" is an ordinary field.
constexpr std::string_view command_name = "*COMMAND";
constexpr std::string_view error_name = "*ERROR";
constexpr std::string_view type_name = "*TYPE";
constexpr std::string_view id_name = "*ID";

bool names(std::string_view line, std::string_view name) {
  return line.size() > name.size() && line.substr(0, name.size()) == name &&
         line[name.size()] == '=';
}

// Writes name=value as one line per line of value: every "\n" in the value
// is followed by the name and "=" again, so a value ending in "\n" gives a
// last line that holds just the name and "=". Nothing is escaped.
void write_named(std::string_view name, const std::string& value, std::string& out) {
  out.append(name);
  out += '=';
  std::size_t start = 0;
  for (std::size_t nl = value.find('\n'); nl != std::string::npos;
       nl = value.find('\n', start)) {
    out.append(value, start, nl - start + 1);
    out.append(name);
    out += '=';
    start = nl + 1;
  }
  out.append(value, start, std::string::npos);
  out += '\n';
}

}  // namespace

void parent_message_clear(parent_message& msg) {
  msg.command.clear();
  msg.error.clear();
  msg.type.clear();
  msg.id.clear();
  msg.fields.clear();
}

void parent_message_parse_line(parent_message& msg, std::string_view line) {
  // A NUL ends the text that is examined.
  line = line.substr(0, line.find('\0'));
  const std::size_t eq = line.find('=');
  if (eq == std::string_view::npos) return;
  const std::string_view value = line.substr(eq + 1);

  std::string* target;
  if (names(line, command_name)) {
    target = &msg.command;
  } else if (names(line, error_name)) {
    target = &msg.error;
  } else if (names(line, type_name)) {
    target = &msg.type;
  } else if (names(line, id_name)) {
    target = &msg.id;
  } else {
    target = &msg.fields[std::string(line.substr(0, eq))];
  }
  // Repeated lines of one name build a multi-line value. An empty target
  // takes the text without a separator, so a leading empty line is lost.
  if (!target->empty()) *target += '\n';
  target->append(value);
}

void parent_message_serialise(const parent_message& msg, std::string& out) {
  // Reserved fields first, in a fixed order, and only when present.
  if (!msg.command.empty()) write_named(command_name, msg.command, out);
  if (!msg.error.empty()) write_named(error_name, msg.error, out);
  if (!msg.type.empty()) write_named(type_name, msg.type, out);
  if (!msg.id.empty()) write_named(id_name, msg.id, out);
  // Named fields are written even when empty: presence carries meaning.
  for (const auto& [name, value] : msg.fields) write_named(name, value, out);
  out += '\n';
}

bool parent_message_complete(const parent_message& msg) {
  return !msg.command.empty() || !msg.error.empty() || !msg.fields.empty();
}

const std::string& parent_field(const parent_message& msg, const std::string& name) {
  auto it = msg.fields.find(name);
  return it == msg.fields.end() ? empty_text : it->second;
}

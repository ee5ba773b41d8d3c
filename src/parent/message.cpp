#include "parent/message.h"

namespace {
const std::string empty_text;
}

void parent_message_clear(parent_message& msg) { msg = parent_message{}; }
void parent_message_parse_line(parent_message&, std::string_view) {}
void parent_message_serialise(const parent_message&, std::string&) {}
bool parent_message_complete(const parent_message& msg) {
  return !msg.command.empty() || !msg.error.empty() || !msg.fields.empty();
}
const std::string& parent_field(const parent_message& msg, const std::string& name) {
  auto it = msg.fields.find(name);
  return it == msg.fields.end() ? empty_text : it->second;
}

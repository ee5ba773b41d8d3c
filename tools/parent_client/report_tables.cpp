#include "parent_client/report_tables.h"

#include <algorithm>
#include <cstdlib>

namespace {

// A decimal number of digits only, below a billion; -1 otherwise.
long parse_position(const std::string& text) {
  if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos) {
    return -1;
  }
  return std::strtol(text.c_str(), nullptr, 10);
}

// Splits a field name "<prefix><position><suffix>"; -1 when it is not one or
// names a position past the backend's tables.
long field_position(const std::string& name, char prefix, const std::string& suffix) {
  if (name.size() <= suffix.size() + 1 || name[0] != prefix ||
      name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0) {
    return -1;
  }
  const long position = parse_position(name.substr(1, name.size() - suffix.size() - 1));
  return position < tables_max_positions ? position : -1;
}

void take_names(std::map<long, std::string>& table, char prefix, const parent_message& record) {
  table.clear();
  for (const auto& [name, value] : record.fields) {
    const long position = field_position(name, prefix, ".name");
    if (position >= 0) table[position] = value;
  }
}

void take_routes(report_tables& t, const parent_message& record, std::vector<route_seen>& changes) {
  t.have_routes = true;
  for (const auto& [name, value] : record.fields) {
    const long output = field_position(name, 'o', ".input.all");
    const long input = value == "none" ? tables_no_input : parse_position(value);
    if (output < 0 || (input < 0 && value != "none")) continue;
    const auto known = t.routes.find(output);
    const long before = known == t.routes.end() ? tables_unknown : known->second;
    if (before != input) changes.push_back({output, before, input});
    t.routes[output] = input;
  }
  std::sort(changes.begin(), changes.end(),
            [](const route_seen& a, const route_seen& b) { return a.output < b.output; });
}

}  // namespace

std::string tables_report_kind(const parent_message& record) {
  if (record.type != "message") return "";
  if (record.command == "info" || record.command == "inputs") return record.command;
  if (record.command != "outputs") return "";
  // One without fields is read as a routing report that every output was
  // dropped from: it changes nothing either way.
  for (const auto& field : record.fields) {
    if (field_position(field.first, 'o', ".name") >= 0) return "outputs";
  }
  return "routes";
}

void tables_apply(report_tables& t, const parent_message& record,
                  std::vector<route_seen>& changes) {
  const std::string kind = tables_report_kind(record);
  if (kind == "info") {
    t.info = record.fields;
  } else if (kind == "inputs") {
    take_names(t.inputs, 'i', record);
    t.have_inputs = true;
  } else if (kind == "outputs") {
    take_names(t.outputs, 'o', record);
    t.have_outputs = true;
  } else if (kind == "routes") {
    take_routes(t, record, changes);
  }
}

long tables_count(const report_tables& t, const std::string& which) {
  const auto field = t.info.find(which);
  return field == t.info.end() ? -1 : parse_position(field->second);
}

std::vector<long> tables_named(const report_tables& t, bool output, const std::string& name) {
  std::vector<long> positions;
  for (const auto& [position, text] : output ? t.outputs : t.inputs) {
    if (text == name) positions.push_back(position);
  }
  return positions;
}

std::string tables_name(const report_tables& t, bool output, long position) {
  const std::map<long, std::string>& table = output ? t.outputs : t.inputs;
  const auto found = table.find(position);
  return found == table.end() ? "" : found->second;
}

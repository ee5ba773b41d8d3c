#pragma once

#include <map>
#include <string>
#include <vector>

#include "parent/message.h"

// What the backend's latest reports say, kept as tables by position: the
// info report's fields, the names of the inputs and outputs, and the input
// each output is routed from.

// Routes to "none" are kept as this input.
inline constexpr long tables_no_input = -1;
// The input of a route change for an output that no report had named yet.
inline constexpr long tables_unknown = -2;
// The backend's tables hold at most this many entries; a report field naming
// a position past them is ignored, so no report can grow a table beyond it.
inline constexpr long tables_max_positions = 1024;

struct report_tables {
  std::map<std::string, std::string> info;  // the latest info report's fields
  std::map<long, std::string> inputs;       // position -> name, latest inputs report
  std::map<long, std::string> outputs;      // position -> name, latest outputs names report
  std::map<long, long> routes;              // output -> input or tables_no_input
  bool have_inputs = false;                 // an inputs report arrived
  bool have_outputs = false;                // an outputs names report arrived
  bool have_routes = false;                 // a routing report arrived
};

// One output whose route a routing report changed.
struct route_seen {
  long output = 0;
  long before = tables_unknown;  // tables_no_input, or tables_unknown when never reported
  long after = tables_no_input;
};

// Takes one record the backend wrote. A report ("*TYPE=message" with command
// "info", "inputs" or "outputs") updates the tables: the names reports
// replace their whole table, a routing report (".input.all" fields) only the
// outputs it lists, each output whose input differs landing in changes, in
// the outputs' numeric order (the fields come in text order: o10 before o2).
// Fields that do not parse, and every other record, are ignored.
void tables_apply(report_tables& t, const parent_message& record, std::vector<route_seen>& changes);

// The kind of report a record is: "info", "inputs", "outputs" (the names of
// the outputs) or "routes" (the routing report, which shares the command
// "outputs" and is told apart by its field names); "" for other records.
[[nodiscard]] std::string tables_report_kind(const parent_message& record);

// The active count of "inputs" or "outputs" from the latest info report, or
// -1 before one arrived.
[[nodiscard]] long tables_count(const report_tables& t, const std::string& which);

// Every position of an input (output: false) or output (true) carrying name,
// in order; none when no report holds it.
[[nodiscard]] std::vector<long> tables_named(const report_tables& t, bool output,
                                            const std::string& name);

// The name of a position, or "" when no report named it.
[[nodiscard]] std::string tables_name(const report_tables& t, bool output, long position);

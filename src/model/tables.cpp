#include "model/tables.h"

#include <cassert>
#include <cstdlib>

#include "base/config.h"
#include "base/diag.h"
#include "base/flags.h"

namespace {

// A destination or source table with the switcher number of its position 0
// and the count last published to the active-count recomputation.
struct names_table {
  std::vector<router_entry> entries;
  std::uint64_t base = 0;
  std::uint64_t count = 0;
};

names_table outputs;  // destinations
names_table inputs;   // sources
std::vector<std::string> levels;
std::uint32_t level_mask = 0;
std::string model_text;
std::string firmware_text;
// Routes the switcher reported, waiting for the routing report.
std::deque<route_change> accepted;

// While a table is being rebuilt its base holds this until a group is taken.
constexpr std::uint64_t base_not_set = ~std::uint64_t{0};
// Switcher numbers and positions above this are dropped: at most 1024 entries.
constexpr std::uint64_t max_table_number = 1023;
constexpr std::uint64_t level_limit = 32;

// Every number from the switcher is hexadecimal; strtoul also takes leading
// blanks, a sign and "0x", and gives 0 for a field without digits.
std::uint64_t read_hex(const std::string& text) { return std::strtoul(text.c_str(), nullptr, 16); }

// A names reply worth scanning: "NQ", good, with a kind and a group count.
bool usable_names_reply(const router_message& msg) {
  return router_request_is(msg, "NQ") && msg.ok && msg.parameters.size() >= 2;
}

// Calls take_group(rawmsg, i) for every complete group of width parameters
// (i = index of its first) in the names replies of response whose kind is
// kind_a or kind_b; the first usable reply of another kind ends the scan.
template <typename Fn>
void scan_names_groups(const std::vector<router_message>& response, const char* kind_a,
                       const char* kind_b, std::size_t width, Fn take_group) {
  for (const router_message& rawmsg : response) {
    if (!usable_names_reply(rawmsg)) continue;
    const std::string& kind = rawmsg.parameters[0];
    if (kind != kind_a && (kind_b == nullptr || kind != kind_b)) return;
    const std::uint64_t groups = read_hex(rawmsg.parameters[1]);
    for (std::uint64_t k = 0; k < groups; ++k) {
      // A group cut short ends this message; the count may promise more
      // groups than the message carries.
      // i is the index just past group k.
      const std::size_t i = 2 + width * (static_cast<std::size_t>(k) + 1);
      if (rawmsg.parameters.size() < i) break;
      assert(i <= rawmsg.parameters.size());
      take_group(rawmsg, i - width);
    }
  }
}

// Finds the position of a destination or source number, taking the first
// accepted number as the table's base and growing the table to cover the
// position. False when the group is to be skipped.
bool place_number(names_table& t, std::uint64_t number, std::uint64_t& index) {
  if (number > max_table_number) return false;
  if (t.base == base_not_set) {
    t.base = number;
    index = 0;
  } else {
    // Unsigned: a number below the base wraps far above the limit.
    index = number - t.base;
    if (index > max_table_number) return false;
  }
  if (index >= t.entries.size()) t.entries.resize(index + 1);
  return true;
}

void begin_names_update(names_table& t) {
  t.entries.clear();
  t.base = base_not_set;
  t.count = 0;
}

// Settles base and count and asks the loop to recount and report. Returns
// true when the table holds entries (so a range line is due).
bool finish_names_update(names_table& t, process_flag report_flag) {
  if (t.base == base_not_set) t.base = 0;
  t.count = t.entries.size();
  raise_flag(process_flag::counts_changed);
  raise_flag(report_flag);
  raise_flag(process_flag::info_report_needed);
  return t.count != 0;
}

// The last switcher number of a non-empty table, for the range lines.
unsigned range_end(const names_table& t) { return static_cast<unsigned>(t.base + t.count - 1); }

}  // namespace

const std::vector<router_entry>& router_outputs_info() { return outputs.entries; }
const std::vector<router_entry>& router_inputs_info() { return inputs.entries; }
const std::vector<std::string>& router_levels() { return levels; }
std::uint32_t router_level_mask() { return level_mask; }
std::uint64_t router_output_count() { return outputs.count; }
std::uint64_t router_input_count() { return inputs.count; }
std::uint64_t output_base() { return outputs.base; }
std::uint64_t input_base() { return inputs.base; }

const std::string& device_model() { return model_text; }
const std::string& firmware_version() { return firmware_text; }
void set_device_model(const std::string& text) { model_text = text; }
void set_firmware_version(const std::string& text) { firmware_text = text; }

// Groups are name, destination number, an unused field and the group value.
void update_dest_info(const std::vector<router_message>& response) {
  begin_names_update(outputs);
  scan_names_groups(response, "ID", "D", 4, [&](const router_message& rawmsg, std::size_t i) {
    // Named for the table, as the assertion's text names it.
    std::vector<router_entry>& router_outputs_info = outputs.entries;
    std::uint64_t index = 0;
    if (!place_number(outputs, read_hex(rawmsg.parameters[i + 1]), index)) return;
    assert(index < router_outputs_info.size());
    router_entry& e = router_outputs_info[index];
    e.name = rawmsg.parameters[i];
    e.group_value = static_cast<std::uint32_t>(read_hex(rawmsg.parameters[i + 3]));
  });
  if (finish_names_update(outputs, process_flag::outputs_report_needed)) {
    diag(outputs_range_line, static_cast<unsigned>(outputs.base),
         range_end(outputs));
  }
}

// The same layout as the destinations, for the sources.
void update_sources_info(const std::vector<router_message>& response) {
  begin_names_update(inputs);
  scan_names_groups(response, "IS", "S", 4, [&](const router_message& rawmsg, std::size_t i) {
    // Named for the table, as the assertion's text names it.
    std::vector<router_entry>& router_inputs_info = inputs.entries;
    std::uint64_t index = 0;
    if (!place_number(inputs, read_hex(rawmsg.parameters[i + 1]), index)) return;
    assert(index < router_inputs_info.size());
    router_entry& e = router_inputs_info[index];
    e.name = rawmsg.parameters[i];
    e.group_value = static_cast<std::uint32_t>(read_hex(rawmsg.parameters[i + 3]));
  });
  if (finish_names_update(inputs, process_flag::inputs_report_needed)) {
    diag("<DBG>Inputs range from %u-%u\n", static_cast<unsigned>(inputs.base),
         range_end(inputs));
  }
}

// Groups are name, level number and an unused field; levels are numbered
// directly, without a base.
void update_levels_info(const std::vector<router_message>& response) {
  levels.clear();
  level_mask = 0;
  scan_names_groups(response, "L", nullptr, 3, [&](const router_message& rawmsg, std::size_t i) {
    std::vector<std::string>& router_levels = levels;
    const std::uint64_t number = read_hex(rawmsg.parameters[i + 1]);
    if (number >= level_limit) return;
    if (router_levels.size() <= number) router_levels.resize(number + 1);
    level_mask |= std::uint32_t{1} << number;
    assert(number < router_levels.size());
    router_levels[number] = rawmsg.parameters[i];
  });
}

void update_route_status(const std::vector<router_message>& response) {
  for (const router_message& msg : response) {
    if (!router_request_is(msg, "IQ") || !msg.ok || msg.parameters.size() < 5) continue;
    // Parameter 0 is the destination, parameter 4 its source; positions are
    // unsigned so numbers below a base fall outside the table.
    const std::uint64_t out = read_hex(msg.parameters[0]) - outputs.base;
    const std::uint64_t in = read_hex(msg.parameters[4]) - inputs.base;
    if (out >= outputs.count || in >= inputs.count) continue;
    accept_route_change(static_cast<std::int32_t>(out), static_cast<std::int32_t>(in));
  }
}

void accept_route_change(std::int32_t output, std::int32_t input) {
  diag("<DBG>Accepting route change output=%d input=%d\n", output, input);
  // Active outputs never exceed 1024, so the signed comparison is exact.
  if (output >= 0 && output < static_cast<std::int32_t>(active_outputs())) {
    accepted.push_back(route_change{input, output});
  }
}

bool accepted_route_changes_empty() { return accepted.empty(); }

route_change take_accepted_route_change() {
  if (accepted.empty()) return {};
  const route_change c = accepted.front();
  accepted.pop_front();
  return c;
}

void reset_router_tables() {
  outputs = names_table{};
  inputs = names_table{};
  levels.clear();
  level_mask = 0;
  model_text.clear();
  firmware_text.clear();
  accepted.clear();
}

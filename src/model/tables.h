#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "model/route_change.h"
#include "router/message.h"

// The backend's model of the switcher: destinations, sources, levels, the
// identity texts and the route changes the switcher reported.

// The debug line that tells the destinations' numbers, first and last, each
// time their table is rebuilt; the tools learn the output base from it.
inline constexpr char outputs_range_line[] = "<DBG>Outputs range from %u-%u\n";

struct router_entry {
  std::string name;
  std::uint32_t group_value = 0;
};

[[nodiscard]] const std::vector<router_entry>& router_outputs_info();
[[nodiscard]] const std::vector<router_entry>& router_inputs_info();
[[nodiscard]] const std::vector<std::string>& router_levels();
[[nodiscard]] std::uint32_t router_level_mask();
[[nodiscard]] std::uint64_t router_output_count();
[[nodiscard]] std::uint64_t router_input_count();
[[nodiscard]] std::uint64_t output_base();
[[nodiscard]] std::uint64_t input_base();

[[nodiscard]] const std::string& device_model();
[[nodiscard]] const std::string& firmware_version();
void set_device_model(const std::string& text);
void set_firmware_version(const std::string& text);

// Rebuild a table from the response list of a "QN" "ID", "IS" or "L" query.
// Any list is valid input, an empty one included.
void update_dest_info(const std::vector<router_message>& response);
void update_sources_info(const std::vector<router_message>& response);
void update_levels_info(const std::vector<router_message>& response);

// Turns every usable "IQ" reply in response into an accepted route change.
void update_route_status(const std::vector<router_message>& response);

// Logs the change and queues it when 0 <= output < active outputs.
void accept_route_change(std::int32_t output, std::int32_t input);

// The accepted route changes, oldest first; the routing report takes them.
[[nodiscard]] bool accepted_route_changes_empty();
[[nodiscard]] route_change take_accepted_route_change();

// Test hooks.
// Empties every table and text and zeroes the counts and bases.
void reset_router_tables();

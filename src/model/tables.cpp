#include "model/tables.h"

namespace {
const std::vector<router_entry> no_entries;
const std::vector<std::string> no_levels;
const std::string empty_text;
}  // namespace

const std::vector<router_entry>& router_outputs_info() { return no_entries; }
const std::vector<router_entry>& router_inputs_info() { return no_entries; }
const std::vector<std::string>& router_levels() { return no_levels; }
std::uint32_t router_level_mask() { return 0; }
std::uint64_t router_output_count() { return 0; }
std::uint64_t router_input_count() { return 0; }
std::uint64_t output_base() { return 0; }
std::uint64_t input_base() { return 0; }
const std::string& device_model() { return empty_text; }
const std::string& firmware_version() { return empty_text; }
void set_device_model(const std::string&) {}
void set_firmware_version(const std::string&) {}
void update_dest_info(const std::vector<router_message>&) {}
void update_sources_info(const std::vector<router_message>&) {}
void update_levels_info(const std::vector<router_message>&) {}
void update_route_status(const std::vector<router_message>&) {}
void accept_route_change(std::int32_t, std::int32_t) {}
bool accepted_route_changes_empty() { return true; }
route_change take_accepted_route_change() { return {}; }
void reset_router_tables() {}

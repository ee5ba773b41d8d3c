#include "frame/config.h"

namespace {
const std::string empty_text;
}

int read_configuration(config_map&, const std::string&) { return -1; }
void apply_config_key(const std::string&, const std::string&) {}
void recompute_active_counts() {}
std::string derive_metadir(const std::string&) { return {}; }
std::uint64_t configured_inputs() { return 0; }
std::uint64_t configured_outputs() { return 0; }
const std::string& router_address() { return empty_text; }
std::int32_t router_port() { return -1; }
std::uint64_t active_inputs() { return 0; }
std::uint64_t active_outputs() { return 0; }
void reset_configuration() {}

#pragma once

#include <cstdint>
#include <map>
#include <string>

// The configuration file: "name = value" lines, read once at start-up under an
// exclusive lock; single keys are applied again at run time by the parent's
// "set" message.

using config_map = std::map<std::string, std::string>;

// Reads the file at path into map, adding every key found; a repeated key has
// its values joined by "\n". Waits while another process holds the lock.
// Returns 0, or -1 when the file cannot be opened, locked or read.
[[nodiscard]] int read_configuration(config_map& map, const std::string& path);

// Applies one key ("inputs", "outputs", "ip address", "port"); unknown keys are
// ignored. A changed value raises counts_changed (and reconnect_requested for
// the address and the port).
void apply_config_key(const std::string& key, const std::string& value);

// Recomputes the active counts from the configured counts and the counts the
// switcher reported (capped at 256); logs and raises info_report_needed for
// each count that changed.
void recompute_active_counts(std::uint64_t reported_inputs, std::uint64_t reported_outputs);

// The metadir for a configuration path, or "" when none can be derived.
[[nodiscard]] std::string derive_metadir(const std::string& path);

// Settings, read by the other subsystems.
[[nodiscard]] std::uint64_t configured_inputs();
[[nodiscard]] std::uint64_t configured_outputs();
[[nodiscard]] const std::string& router_address();
[[nodiscard]] std::int32_t router_port();
[[nodiscard]] std::uint64_t active_inputs();
[[nodiscard]] std::uint64_t active_outputs();

// Test hooks.
// Puts every setting and active count back to its start-up value.
void reset_configuration();

#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "base/clock.h"

// The configuration file: "name = value" lines, read once at start-up under an
// exclusive lock; single keys are applied again at run time by the parent's
// "set" message.

using config_map = std::map<std::string, std::string>;

// Reads the file at path into map, adding every key found; a repeated key has
// its values joined by "\n". Waits while another process holds the lock.
// Returns 0, or -1 when the file cannot be opened, locked or read.
[[nodiscard]] int read_configuration(config_map& map, const std::string& path);

// Applies one key ("inputs", "outputs", "ip address", "port", or one of the
// optional keys below); unknown keys are ignored. A changed value raises
// counts_changed (and reconnect_requested for the address and the port). An
// optional key with a value it does not take keeps its setting and says so in
// one warning line.
void apply_config_key(const std::string& key, const std::string& value);

// Recomputes the active counts from the configured counts and the counts the
// switcher reported (capped at the active limit, 256 unless configured); logs
// and raises info_report_needed for each count that changed.
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

// The optional keys, for switchers that differ from the usual ones. Absent,
// each keeps the usual behaviour, given here as the default.
// "status numbering": "plus one" (default) names the destination of a route
// status query as its position plus one; "base" as its position plus the
// output base, as takes do.
[[nodiscard]] bool status_query_adds_base();
// "status level": the level a route status query names, 0 by default; "first"
// is the lowest level number the switcher reported.
struct status_level_setting {
  bool first = false;
  std::uint32_t number = 0;
};
[[nodiscard]] status_level_setting status_query_level();
// "handshake resend": how long the first "BK" waits for an answer before it is
// sent again, 100 ms by default, 100 to 5000 ms.
[[nodiscard]] us_time_t handshake_resend_us();
// "flush while down": "keep" (default) holds changes flushed while the link is
// not ready until it is; "drop" drops them at the flush.
[[nodiscard]] bool drop_flushes_while_down();
// "active limit": the cap on the active counts, 256 by default, 256 to 1024;
// recompute_active_counts applies it.
[[nodiscard]] std::uint64_t active_count_limit();

// Test hooks.
// Puts every setting and active count back to its start-up value.
void reset_configuration();

#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "router/message.h"

// The switcher the emulator pretends to be: its configuration, its live state
// (names, routes, change bookkeeping) and the answer to one request.

inline constexpr std::uint32_t emulator_max_ports = 1024;  // destinations or sources
inline constexpr std::size_t emulator_max_name = 64;      // bytes in one name

struct emulator_level {
  std::string name;
  std::uint32_t number = 0;  // 0 to 31
};

// What the switcher is. Numbers are the switcher's own (base + position).
struct emulator_config {
  std::uint32_t outputs = 16;
  std::uint32_t inputs = 16;
  std::uint32_t output_base = 1;
  std::uint32_t input_base = 1;
  std::vector<std::string> output_names;  // by position; missing or empty: generated
  std::vector<std::string> input_names;
  std::vector<emulator_level> levels = {{"Video", 0}, {"Audio", 1}};
  std::string model = "Emulated Switcher";
  std::string firmware_type = "EMU";
  std::string firmware_revision = "1.0";
  std::vector<std::pair<std::uint32_t, std::uint32_t>> routes;  // (destination, source)
  std::vector<std::uint32_t> protected_outputs;  // destinations another controller protects
};

// Who protects a destination: a protected destination takes no route from
// anyone but its protector.
enum class emulator_protect : std::uint8_t { none, other_controller, client };

// What the switcher currently holds; positions count from 0.
struct emulator_state {
  std::vector<std::string> output_names;
  std::vector<std::string> input_names;
  std::vector<std::uint32_t> routes;  // source position of each destination
  std::vector<bool> changed;          // destinations not yet reported by "QD"
  std::uint32_t change_flags = 0;     // returned by "BK" "F", cleared by "BK" "f"
  std::vector<emulator_protect> protect;  // of each destination
};

// True when name can travel as a parameter: 1 to emulator_max_name printable
// bytes (blank included, TAB and control bytes not).
[[nodiscard]] bool emulator_valid_name(const std::string& name);

// Puts st into its start-up shape from cfg: names generated where none was
// given ("OUT 1", "CAM 1", ...), destination i routed to source i modulo the
// source count, then cfg.routes applied; nothing changed, no flags. Returns
// false with a one-line reason in error when cfg is inconsistent.
[[nodiscard]] bool emulator_init(const emulator_config& cfg, emulator_state& st,
                                 std::string& error);

// Routes source number src to destination number dest and marks dest changed.
// False, changing nothing, when either number is out of range.
[[nodiscard]] bool emulator_take(const emulator_config& cfg, emulator_state& st,
                                 std::uint64_t dest, std::uint64_t src);

// Renames destination (output true) or source number; sets the matching change
// flag and marks the destinations it affects changed. False, changing nothing,
// when the number is out of range or the name is not valid.
[[nodiscard]] bool emulator_rename(const emulator_config& cfg, emulator_state& st, bool output,
                                   std::uint64_t number, const std::string& name);

// Protects destination number dest as another controller would (on), or lifts
// its protection (off). False, changing nothing, when dest is out of range.
[[nodiscard]] bool emulator_protect_output(const emulator_config& cfg, emulator_state& st,
                                           std::uint64_t dest, bool on);

// The messages the switcher sends in answer to req, in order; never empty.
// REQUIRES: st was set up by emulator_init with the same cfg.
[[nodiscard]] std::vector<router_message> emulator_answer(const emulator_config& cfg,
                                                          emulator_state& st,
                                                          const router_message& req);

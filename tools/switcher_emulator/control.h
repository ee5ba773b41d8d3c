#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "switcher_emulator/emulator.h"

// The control language read from standard input, one command per line, with
// decimal switcher numbers:
//   take DEST SOURCE            route SOURCE to DEST, as a "TI" would
//   rename output|input N NAME  NAME is the rest of the line
//   protect DEST                protect DEST as another controller would
//   unprotect DEST              lift any protection of DEST
//   routes                      one "route DEST SOURCE" line per destination
//   flags                       "flags HEX", the change flags
//   quit                        stop the emulator
// Every command ends its output with "ok" or "error <reason>". The server
// itself takes "chaos on", "chaos off" and "drop" before they get here.

inline constexpr std::size_t control_max_line = 1024;

// Carries out one line (without its newline) on st; appends the output lines
// to out and sets quit for "quit". An empty line does nothing.
void control_line(const emulator_config& cfg, emulator_state& st, const std::string& line,
                  std::string& out, bool& quit);

// Reads a decimal number of at most max, digits only. False when text is not one.
[[nodiscard]] bool parse_decimal(const std::string& text, std::uint64_t max,
                                 std::uint64_t& value);

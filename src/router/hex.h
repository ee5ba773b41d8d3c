#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

// A number as the switcher expects it in a parameter: upper-case hexadecimal
// without leading zeros ("%X").
inline std::string hex_parameter(std::uint64_t value) {
  char text[24];
  std::snprintf(text, sizeof text, "%llX", static_cast<unsigned long long>(value));
  return text;
}

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

// What both ends of a Native Protocol link agree on: control bytes, frame and
// body limits, the change-flag bits and the hexadecimal digits every number
// travels in. The backend, the switcher emulator and the fuzz targets share
// this one copy.
//
// A command frame is SOH, protocol letter, sequence flag, two command
// letters, a TAB before each parameter, two checksum digits over everything
// after SOH, and EOT. A NAK frame is NAK, four hexadecimal digits, EOT. An
// ACK is the single ACK byte.

// Control bytes.
inline constexpr char soh = 0x01;
inline constexpr char eot = 0x04;
inline constexpr char ack_byte = 0x06;
inline constexpr char tab = 0x09;
inline constexpr char nak_byte = 0x15;

// Frames are built in a buffer of this size; a command frame is at most 1018
// bytes, the rest is room for the terminating NUL.
inline constexpr std::size_t max_frame_bytes = 1024;
// A non-empty parameter is copied only if the frame through its end stays
// within this many bytes, leaving room for a separator, two checksum digits,
// EOT and NUL.
inline constexpr std::size_t max_frame_before_checksum = 1015;

// The longest received body kept between lead byte and EOT; one more byte
// makes the message over-long.
inline constexpr std::size_t max_body_bytes = 4096;
// A command body ends in two checksum digits.
inline constexpr std::size_t checksum_field_bytes = 2;
// The longest frame still fits its buffer: one empty parameter's TAB past the
// limit, the checksum digits, EOT and the terminating NUL.
static_assert(max_frame_before_checksum + 1 + checksum_field_bytes + 1 + 1 <= max_frame_bytes);

// The switcher's TCP port when none is configured.
inline constexpr std::uint16_t default_router_port = 12345;

// Bits of the change flags that "BK" "F" returns and "BK" "f" clears.
inline constexpr std::uint32_t change_flag_dest_names = 0x04;
inline constexpr std::uint32_t change_flag_source_names = 0x10;

// The upper-case digit for the low four bits of v.
[[nodiscard]] inline char hex_digit(unsigned v) { return "0123456789ABCDEF"[v & 0xF]; }

// The value of one hexadecimal digit of either case; -1 for any other byte.
[[nodiscard]] inline int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// A number as the switcher expects it in a parameter: upper-case hexadecimal
// without leading zeros ("%X").
[[nodiscard]] inline std::string hex_parameter(std::uint64_t value) {
  char text[24];
  std::snprintf(text, sizeof text, "%llX", static_cast<unsigned long long>(value));
  return text;
}

#pragma once

#include <cstdint>

#include "base/clock.h"

// Chaos mode: time cut into slices of random length, each with one fault
// chosen at random (or none), drawn from a generator of its own so that a
// seed always gives the same sequence of slices whatever the traffic.

// One of the faults a slice can carry; clean carries none.
enum class chaos_mode : std::uint8_t {
  clean,     // answer normally
  drop,      // close the connection when the slice starts, and now and then on a frame
  silent,    // take frames, answer nothing
  ack_only,  // answer every frame with a bare ACK
  garbage,   // stray bytes before every frame sent
  corrupt,   // wrong checksums on a share of the frames sent
  split,     // one byte per write
  refuse,    // close the connection and reset every new one until the slice ends
  delay,     // answers late, some beyond the client's patience
};

// The fault settings in force; the server applies these to every frame.
// Each is off by default.
struct emulator_faults {
  std::uint64_t seed = 1;
  std::uint32_t close_after = 0;     // close on the Nth frame of a connection; 0: never
  std::uint32_t close_random = 0;    // close on a frame with a 1-in-N chance; 0: never
  std::int64_t silent_after = -1;    // ignore frames after the Nth of a connection; -1: never
  bool ack_only = false;             // answer every frame with a bare ACK, do nothing
  std::uint32_t delay_ms = 0;        // hold every answer back this long
  std::uint32_t delay_jitter_ms = 0; // plus 0 to this many ms more
  std::uint32_t handshake_delay_ms = 0;  // and the answer to a bare "BK" this much more
  bool split_writes = false;         // one byte per write
  std::uint32_t garbage = 0;         // 1 to N stray bytes before every frame; 0: none
  std::uint32_t corrupt_random = 0;  // wrong checksum with a 1-in-N chance; 0: never
  std::uint32_t refuse_ms = 0;       // reset every connection this long after opening
};

// One slice: its fault, how long it lasts and the settings that make it.
struct chaos_slice {
  chaos_mode mode = chaos_mode::clean;
  us_time_t length_us = 0;
  emulator_faults faults;  // seed and refuse_ms unused: refusal lasts the slice
  bool drop_now = false;   // close the current connection when the slice starts
  bool refuse = false;     // reset every connection made during the slice
};

// The name of a mode as the verbose log and the README show it.
[[nodiscard]] const char* chaos_mode_name(chaos_mode mode);

// The generator state for a seed; chaos slices use it and nothing else.
[[nodiscard]] std::uint64_t chaos_seed(std::uint64_t seed);

// Draws the next slice: a clean one about a quarter of the time, otherwise one
// fault; its length is mean_ms / 2 to 3 * mean_ms / 2. REQUIRES: mean_ms > 0.
[[nodiscard]] chaos_slice chaos_next_slice(std::uint64_t& state, std::uint32_t mean_ms);

// One step of splitmix64: small, and the same sequence for a seed everywhere.
[[nodiscard]] std::uint64_t emulator_random(std::uint64_t& state);

#include "switcher_emulator/chaos.h"

#include <cassert>

namespace {

// Weights of the modes in the draw, in enum order. Clean slices are common
// enough that a client gets through a synchronisation now and then and its
// routine work (polling, route changes) meets the faults too.
constexpr std::uint32_t mode_weights[] = {3, 1, 1, 1, 1, 1, 1, 1, 1};
constexpr std::uint32_t weight_total = 11;
static_assert(sizeof mode_weights / sizeof mode_weights[0] ==
              static_cast<std::size_t>(chaos_mode::delay) + 1);

// Per-mode strength. A dropping slice closes on about one frame in 25; a
// corrupting one spoils one frame in 3. Delays reach 2.5 s, so some answers
// miss a 2 s deadline of the client and others arrive just in time.
constexpr std::uint32_t drop_one_in = 25;
constexpr std::uint32_t corrupt_one_in = 3;
constexpr std::uint32_t garbage_bytes = 16;
constexpr std::uint32_t delay_ms = 20;
constexpr std::uint32_t delay_jitter_ms = 2500;

chaos_mode draw_mode(std::uint64_t& state) {
  std::uint64_t pick = emulator_random(state) % weight_total;
  std::size_t i = 0;
  while (pick >= mode_weights[i]) pick -= mode_weights[i++];
  return static_cast<chaos_mode>(i);
}

}  // namespace

std::uint64_t emulator_random(std::uint64_t& state) {
  std::uint64_t z = (state += 0x9E3779B97F4A7C15ULL);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
  return z ^ (z >> 31);
}

const char* chaos_mode_name(chaos_mode mode) {
  switch (mode) {
    case chaos_mode::clean: return "clean";
    case chaos_mode::drop: return "drop";
    case chaos_mode::silent: return "silent";
    case chaos_mode::ack_only: return "ack-only";
    case chaos_mode::garbage: return "garbage";
    case chaos_mode::corrupt: return "corrupt";
    case chaos_mode::split: return "split";
    case chaos_mode::refuse: return "refuse";
    case chaos_mode::delay: return "delay";
  }
  return "?";
}

std::uint64_t chaos_seed(std::uint64_t seed) {
  // Apart from the frame faults' generator, which starts at the seed itself.
  return seed ^ 0x6368616F73ULL;
}

chaos_slice chaos_next_slice(std::uint64_t& state, std::uint32_t mean_ms) {
  assert(mean_ms > 0);
  chaos_slice s;
  s.mode = draw_mode(state);
  const std::uint64_t ms = mean_ms / 2 + emulator_random(state) % (mean_ms + 1ULL);
  s.length_us = ms * 1000;
  emulator_faults& f = s.faults;
  switch (s.mode) {
    case chaos_mode::clean: break;
    case chaos_mode::drop:
      s.drop_now = true;
      f.close_random = drop_one_in;
      break;
    case chaos_mode::silent: f.silent_after = 0; break;
    case chaos_mode::ack_only: f.ack_only = true; break;
    case chaos_mode::garbage: f.garbage = garbage_bytes; break;
    case chaos_mode::corrupt: f.corrupt_random = corrupt_one_in; break;
    case chaos_mode::split: f.split_writes = true; break;
    case chaos_mode::refuse:
      s.drop_now = true;
      s.refuse = true;
      break;
    case chaos_mode::delay:
      f.delay_ms = delay_ms;
      f.delay_jitter_ms = delay_jitter_ms;
      break;
  }
  return s;
}

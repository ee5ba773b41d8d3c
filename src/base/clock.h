#pragma once

#include <cstdint>

// Microseconds on the monotonic clock from an arbitrary origin. Every deadline
// and timer in the backend is an absolute value of this type, compared as an
// unsigned number; 0 means "not set" where the owner says so.
using us_time_t = std::uint64_t;

// The time of CLOCK_MONOTONIC in microseconds (nanoseconds / 1000, truncated).
// If the clock cannot be read, returns 18446744073709551, a time later than
// any real one. This is the only clock read anywhere in the backend.
[[nodiscard]] us_time_t monotonic_now_us();

#include "base/clock.h"

#include <time.h>

us_time_t monotonic_now_us() {
  timespec ts{};
  if (clock_gettime(CLOCK_MONOTONIC, &ts) != 0) {
    // The all-ones nanosecond count in microseconds: later than any real time.
    return UINT64_MAX / 1000;
  }
  const std::uint64_t ns = static_cast<std::uint64_t>(ts.tv_sec) * 1000000000ULL +
                           static_cast<std::uint64_t>(ts.tv_nsec);
  return ns / 1000;
}

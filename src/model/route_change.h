#pragma once

#include <cstdint>

// One route: a zero-based input position routed to a zero-based output
// position; -1 means none.
struct route_change {
  std::int32_t input = -1;
  std::int32_t output = -1;
};

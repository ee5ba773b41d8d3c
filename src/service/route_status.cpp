#include "service/route_status.h"

#include <bit>
#include <vector>

#include "base/config.h"
#include "model/tables.h"
#include "router/exchange.h"
#include "router/protocol.h"

namespace {

constexpr us_time_t budget_per_256_outputs_us = 5'000'000;

// The level the query names: the configured one, or the lowest the switcher
// reported (0 while it reported none).
std::uint32_t query_level() {
  const status_level_setting level = status_query_level();
  if (!level.first) return level.number;
  const std::uint32_t mask = router_level_mask();
  return mask == 0 ? 0 : static_cast<std::uint32_t>(std::countr_zero(mask));
}

}  // namespace

us_time_t route_status_budget_us() {
  return budget_per_256_outputs_us * static_cast<us_time_t>((active_count_limit() + 255) / 256);
}

void query_output_route(std::uint64_t position, us_time_t deadline) {
  // Position plus one unless configured to add the output base, as takes do;
  // either is written as the switcher's 32-bit number.
  const std::uint32_t dest = static_cast<std::uint32_t>(position) +
                             (status_query_adds_base() ? static_cast<std::uint32_t>(output_base()) : 1u);
  std::vector<router_message> response;
  (void)query_step(response, "QI", {hex_parameter(dest), hex_parameter(query_level())}, deadline);
  update_route_status(response);
}

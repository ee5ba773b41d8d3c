#include "service/route_status.h"

#include <vector>

#include "model/tables.h"
#include "router/exchange.h"
#include "router/protocol.h"

void query_output_route(std::uint64_t position, us_time_t deadline) {
  std::vector<router_message> response;
  (void)query_step(response, "QI", {hex_parameter(position + 1), "0"}, deadline);
  update_route_status(response);
}

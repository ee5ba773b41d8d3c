#pragma once

#include <cstdint>

#include "base/clock.h"

// The route status query, shared by the synchronisation, status polling and
// the dispatcher's output status loop. It serves the parent before the
// query, which may re-enter the dispatcher: a service, not part of the model.

// Serves one waiting parent message, then asks the switcher for the source of
// the output at position (counted from 0) and accepts what it reports. The
// query carries the position counted from 1, not the switcher's own number,
// on level 0, unless "status numbering" and "status level" say otherwise.
// A failed exchange closes the link; whatever did arrive is still taken.
void query_output_route(std::uint64_t position, us_time_t deadline);

// The time the route status queries of one pass share (the synchronisation's,
// a status request's, the output status loop's): 5 s for every 256 outputs
// the active limit allows, so a larger limit leaves as long for each output.
[[nodiscard]] us_time_t route_status_budget_us();

#pragma once

#include <cstdint>

#include "base/clock.h"

// The route status query, shared by the synchronisation, status polling and
// the dispatcher's output status loop. It serves the parent before the
// query, which may re-enter the dispatcher: a service, not part of the model.

// Serves one waiting parent message, then asks the switcher for the source of
// the output at position (counted from 0) and accepts what it reports. The
// query carries the position counted from 1, not the switcher's own number.
// A failed exchange closes the link; whatever did arrive is still taken.
void query_output_route(std::uint64_t position, us_time_t deadline);

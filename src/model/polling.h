#pragma once

#include <cstdint>

#include "frame/clock.h"

// The status polling step of the main loop: the periodic status request when
// it is due, then the drain of unsolicited messages.
void status_polling_step();

// Serves one waiting parent message, then asks the switcher for the source of
// the output at position (counted from 0) and accepts what it reports. The
// query carries the position counted from 1, not the switcher's own number.
// A failed exchange closes the link; whatever did arrive is still taken.
void query_output_route(std::uint64_t position, us_time_t deadline);

// When the next periodic status request is due; 0 when none is scheduled.
[[nodiscard]] us_time_t next_status_poll();
void set_next_status_poll(us_time_t t);

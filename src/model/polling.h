#pragma once

#include "frame/clock.h"

// The status polling step of the main loop: the periodic status request when
// it is due, then the drain of unsolicited messages.
void status_polling_step();

// When the next periodic status request is due; 0 when none is scheduled.
[[nodiscard]] us_time_t next_status_poll();
void set_next_status_poll(us_time_t t);

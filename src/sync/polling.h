#pragma once

#include "base/clock.h"

// The status polling step of the main loop: the periodic status request when
// it is due, then the drain of unsolicited messages.
void status_polling_step();

// Schedules the next periodic status request; 0 schedules none.
void set_next_status_poll(us_time_t t);

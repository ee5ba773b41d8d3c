#pragma once

#include "base/clock.h"

// Runs passes of the main loop until a signal asks to quit or the parent
// channel ends, then closes the switcher connection.
void run_main_loop();

// The wait of one pass, in microseconds: 50 ms while flushed route changes
// wait for their pacing time and nothing else is pending, else 250 ms.
[[nodiscard]] long main_loop_wait_us(us_time_t now);

#include "frame/main_loop.h"

void run_main_loop() {}
long main_loop_wait_us(us_time_t) { return 250000; }

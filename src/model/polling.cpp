#include "model/polling.h"

void status_polling_step() {}
us_time_t next_status_poll() { return 0; }
void set_next_status_poll(us_time_t) {}

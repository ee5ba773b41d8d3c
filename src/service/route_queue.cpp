#include "service/route_queue.h"

void add_route_change(const route_change&) {}
void discard_route_changes() {}
void flush_route_changes() {}
void send_route_changes() {}
void delayed_flush_step() {}
bool send_queue_empty() { return true; }
us_time_t flush_allow() { return 0; }
us_time_t queue_timeout() { return 0; }
void set_flush_allow_for_test(us_time_t) {}
void set_queue_timeout_for_test(us_time_t) {}
void reset_route_queues() {}

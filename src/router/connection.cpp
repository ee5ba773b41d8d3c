#include "router/connection.h"

#include <cstddef>

void connection_connect() {}
void connection_poll() {}
void connection_close() {}
void connection_queue_and_write(const char*, std::size_t) {}
bool connection_is_open() { return false; }
int connection_socket() { return -1; }
bool connection_connect_in_progress() { return false; }
bool connection_tx_pending() { return false; }
void connection_mark_activity(us_time_t) {}
void connection_set_last_activity_for_test(us_time_t) {}
void connection_set_next_connect_time_for_test(us_time_t) {}
void connection_reset_for_test() {}

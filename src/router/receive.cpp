#include "router/receive.h"

void connection_read() {}
void receive_bytes(const char*, std::size_t) {}
router_message connection_recvmsg() { return {}; }
bool received_queue_empty() { return true; }
void received_queue_drop_front() {}
bool receive_in_progress() { return false; }
void receive_reset() {}
void receive_reset_for_test() {}

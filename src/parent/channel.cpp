#include "parent/channel.h"

int parent_channel_prepare() { return -1; }
int parent_pump() { return -1; }
const parent_message* parent_next() { return nullptr; }
void parent_send(const parent_message&) {}
bool parent_output_pending() { return false; }
void parent_add_read_fds(fd_set*, int*) {}
void parent_channel_use_fds_for_test(int, int) {}

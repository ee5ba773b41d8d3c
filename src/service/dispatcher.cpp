#include "service/dispatcher.h"

void handle_parent_message(const parent_message&) {}
void poll_parent_message() {}

#pragma once

#include "parent/message.h"

// Handles one complete parent message and sends at most one reply. Re-entered
// from every wait that serves the parent; takes what it needs from request
// before anything can pump the parent channel.
void handle_parent_message(const parent_message& request);

// One parent_pump(), one parent_next(), and handle_parent_message() if a
// complete message came out.
void poll_parent_message();

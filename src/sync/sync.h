#pragma once

// Learns the switcher from scratch after a connection comes up: handshake,
// identity, setup, names, the route of every active output; then schedules
// status polling and reports to the parent. Called by the main loop while
// sync_needed is set.
void initial_sync();

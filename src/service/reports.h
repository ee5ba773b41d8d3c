#pragma once

// Reports to the parent, each one parent message of type "message".

void send_outputs_report();  // "outputs": o<n>.name for every destination
void send_inputs_report();   // "inputs": i<n>.name for every source
void send_info_report();     // "info": counts, identity, product texts
// "outputs": o<n>.input.all for every accepted route change waiting; sends
// nothing when none is waiting.
void send_routing_report();

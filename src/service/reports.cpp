#include "service/reports.h"

void send_outputs_report() {}
void send_inputs_report() {}
void send_info_report() {}
void send_routing_report() {}

#include "service/reports.h"

#include <cstdint>
#include <string>
#include <vector>

#include "base/config.h"
#include "model/route_change.h"
#include "model/tables.h"
#include "parent/channel.h"
#include "parent/message.h"

namespace {

// The one routing control the backend offers; it also ends the routing
// report's field names, and route requests name it in "control".
const char* const routing_control = "all";
const char* const credit_text =
    "zeph_route_grass_valley router backend; Grass Valley is a trademark of its owner";

parent_message make_report(const char* command) {
  parent_message msg;
  msg.command = command;
  msg.type = "message";
  return msg;
}

// One "<prefix><index>.name" field per entry, the whole table whatever the
// active counts.
void send_names_report(const char* command, const char* prefix,
                       const std::vector<router_entry>& table, parent_output_kind kind) {
  parent_message msg = make_report(command);
  for (std::size_t i = 0; i < table.size(); ++i) {
    msg.fields[prefix + std::to_string(i) + ".name"] = table[i].name;
  }
  parent_send(msg, kind);
}

}  // namespace

// A report the parent has not begun to read when a newer one of its kind is
// sent gives way to it (the parent channel says how): a parent that reads
// slowly gets the newest names and routes, not a backlog.
void send_outputs_report() {
  send_names_report("outputs", "o", router_outputs_info(), parent_output_kind::outputs_names);
}

void send_inputs_report() {
  send_names_report("inputs", "i", router_inputs_info(), parent_output_kind::inputs_names);
}

void send_info_report() {
  parent_message msg = make_report("info");
  msg.fields["inputs"] = std::to_string(active_inputs());
  msg.fields["outputs"] = std::to_string(active_outputs());
  msg.fields["output routing controls"] = routing_control;
  msg.fields["product"] = "Grass Valley Native Protocol switcher or compatible";
  msg.fields["company"] = "Grass Valley";
  msg.fields["copyright"] = credit_text;
  msg.fields["firmware version"] = firmware_version();
  msg.fields["model"] = device_model();
  parent_send(msg, parent_output_kind::info);
}

void send_routing_report() {
  if (accepted_route_changes_empty()) return;
  parent_message msg = make_report("outputs");
  // Active outputs never exceed 1024, so the signed comparison is exact.
  const auto outputs = static_cast<std::int32_t>(active_outputs());
  while (!accepted_route_changes_empty()) {
    const route_change c = take_accepted_route_change();
    if (c.output < 0 || c.output >= outputs) continue;
    // A later change for the same output replaces the earlier field.
    msg.fields["o" + std::to_string(c.output) + ".input.all"] =
        c.input < 0 ? std::string("none") : std::to_string(c.input);
  }
  // Sent even when every change was dropped.
  parent_send(msg, parent_output_kind::routing);
}

#include "console/view.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <utility>

namespace {

// A position and its name, as "o4 Studio A" or "o4".
std::string labelled(const report_tables& t, bool output, long position) {
  const std::string name = tables_name(t, output, position);
  return (output ? "o" : "i") + std::to_string(position) + (name.empty() ? "" : " " + name);
}

std::string field(const report_tables& t, const char* name) {
  const auto found = t.info.find(name);
  return found == t.info.end() ? "" : found->second;
}

// The width of the widest name in a table, at least min.
std::size_t name_width(const std::map<long, std::string>& names, std::size_t min) {
  std::size_t w = min;
  for (const auto& entry : names) w = std::max(w, entry.second.size());
  return w;
}

std::string row(long position, const std::string& name, std::size_t width) {
  char pos[16];
  std::snprintf(pos, sizeof pos, "%4ld  ", position);
  return pos + name + std::string(width > name.size() ? width - name.size() : 0, ' ');
}

std::vector<std::string> indented(const std::string& text) {
  std::vector<std::string> lines;
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t nl = text.find('\n', start);
    lines.push_back("  " + text.substr(start, nl - start));
    start = nl == std::string::npos ? text.size() : nl + 1;
  }
  return lines;
}

}  // namespace

std::string view_route(const report_tables& t, long output, long input) {
  return labelled(t, true, output) + " <- " +
         (input == tables_no_input ? "none" : labelled(t, false, input));
}

std::string view_refused(const report_tables& t, const refused_take& r) {
  const std::string code = r.code.rfind("NAK", 0) == 0 ? r.code : "code " + r.code;
  return (r.output < 0 ? std::string("a take") : labelled(t, true, r.output)) +
         " refused by the switcher (" + code + ")";
}

std::vector<std::string> view_routes(const report_tables& t) {
  std::vector<long> outputs;
  const long count = tables_count(t, "outputs");
  for (long o = 0; o < count; ++o) outputs.push_back(o);
  if (count < 0) {
    for (const auto& route : t.routes) outputs.push_back(route.first);
  }
  const std::size_t width = name_width(t.outputs, 4);
  std::vector<std::string> lines{" OUT  NAME" + std::string(width - 4, ' ') + "    IN  NAME"};
  for (long o : outputs) {
    const auto route = t.routes.find(o);
    std::string from = "  --";
    if (route != t.routes.end() && route->second == tables_no_input) {
      from = "none";
    } else if (route != t.routes.end()) {
      from = row(route->second, tables_name(t, false, route->second), 0);
    }
    std::string line = row(o, tables_name(t, true, o), width) + "  " + from;
    lines.push_back(line.erase(line.find_last_not_of(' ') + 1));
  }
  return lines;
}

std::vector<std::string> view_names(const report_tables& t, bool output) {
  const std::map<long, std::string>& names = output ? t.outputs : t.inputs;
  std::vector<std::string> lines{output ? " OUT  NAME" : "  IN  NAME"};
  for (const auto& [position, name] : names) lines.push_back(row(position, name, name.size()));
  return lines;
}

std::vector<std::string> view_info(const report_tables& t) {
  std::vector<std::string> lines;
  for (const auto& [name, value] : t.info) {
    std::string line = name + ": ";
    line += value;
    lines.push_back(std::move(line));
  }
  return lines;
}

std::vector<std::string> view_record(const report_tables& t, const client_record& r) {
  const std::string kind = tables_report_kind(r.msg);
  if (kind == "info") {
    return {"info: " + field(t, "inputs") + " inputs, " + field(t, "outputs") + " outputs, model \"" +
            field(t, "model") + "\", firmware \"" + field(t, "firmware version") + "\""};
  }
  if (kind == "inputs" || kind == "outputs") {
    return {kind + ": " + std::to_string(r.msg.fields.size()) + " names (show " + kind + ")"};
  }
  if (kind == "routes") {
    std::vector<std::string> lines;
    for (const route_seen& c : r.changes) lines.push_back(view_route(t, c.output, c.after));
    if (lines.empty()) lines.push_back("routes: none changed (show routes)");
    return lines;
  }
  std::vector<std::string> lines{"record:"};
  const std::vector<std::string> body = indented(r.text);
  lines.insert(lines.end(), body.begin(), body.end());
  return lines;
}

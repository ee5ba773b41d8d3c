#pragma once

#include <string>
#include <vector>

#include "parent_client/client.h"

// What the console prints: one line per route change, the tables of the
// "show" commands and a summary of each report, as lines without "\n".

// "o4 Studio A <- i9 CAM 10", "o4 Studio A <- none"; a name no report gave is
// left out.
[[nodiscard]] std::string view_route(const report_tables& t, long output, long input);

// "o4 Studio A refused by the switcher (code 04)", or "(NAK 0002)".
[[nodiscard]] std::string view_refused(const report_tables& t, const refused_take& r);

// "show routes": every output below the active count (or every output a
// report routed, before an info report) with its input; "--" where no
// routing report told.
[[nodiscard]] std::vector<std::string> view_routes(const report_tables& t);

// "show outputs" and "show inputs": position and name, one a line.
[[nodiscard]] std::vector<std::string> view_names(const report_tables& t, bool output);

// "show info": the latest info report's fields as "name: value".
[[nodiscard]] std::vector<std::string> view_info(const report_tables& t);

// What a report tells in short: the info report's counts and identity, how
// many names a names report gave, a line per route a routing report changed
// (in the outputs' order), or that it changed none.
// Records that are no report come back as their text, indented.
[[nodiscard]] std::vector<std::string> view_record(const report_tables& t, const client_record& r);

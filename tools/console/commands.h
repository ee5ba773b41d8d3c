#pragma once

#include <string>

// The console's commands, one per line: each checks its words and then acts
// through the session. A bad line gets one "error: ..." line and changes
// nothing. Empty lines and lines starting with "#" do nothing.
void commands_run(const std::string& line);

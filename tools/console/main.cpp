// zeph_route_console: drive the backend by hand and read its reports as
// tables. It starts the backend as its child, exactly as a parent does, on a
// configuration (--file) or against the bundled switcher emulator
// (--emulator), and takes one command a line from a terminal or a script.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "console/commands.h"
#include "console/session.h"
#include "console/terminal.h"
#include "parent_client/options.h"

namespace {

constexpr const char* usage_text =
    "usage: zeph_route_console [--backend PATH] --file CFG\n"
    "       zeph_route_console [--backend PATH] --emulator [EMULATOR OPTIONS]\n"
    "  --file CFG     start the backend on this configuration\n"
    "  --emulator     start the switcher emulator on a free port and the backend\n"
    "                 against it; every option after it goes to the emulator\n"
    "  --backend PATH another build of the backend\n"
    "Commands come one a line from standard input; \"help\" lists them. Exit\n"
    "status 0, 1 when a command failed or the backend ended by itself, 2 when\n"
    "nothing could start.\n";

}  // namespace

int main(int argc, char** argv) {
  console_options o;
  const int status =
      parent_options_parse(argc, argv, "zeph_route_console", usage_text, {}, o.parent);
  if (status >= 0) return status;
  terminal_open(isatty(STDIN_FILENO) == 1);
  if (!session_start(o)) {
    terminal_close();
    return 2;
  }
  std::vector<std::string> lines;
  bool input_open = true;
  while (input_open && !session_over()) {
    terminal_prompt(session_prompt());
    const bool readable = child_pump_watching(250, STDIN_FILENO);
    session_show();
    if (!readable) continue;
    input_open = terminal_read(lines);
    for (std::size_t i = 0; i < lines.size() && !session_over(); ++i) {
      if (!session_take_line(lines[i])) commands_run(lines[i]);
    }
    lines.clear();
  }
  return session_finish();
}

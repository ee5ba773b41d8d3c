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

bool wants_help(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--emulator") return false;  // the rest is the emulator's
    if (a == "-h" || a == "--help") return true;
  }
  return false;
}

bool parse_options(int argc, char** argv, console_options& o) {
  for (int i = 1; i < argc; ++i) {
    const std::string opt = argv[i];
    if (opt == "--emulator") {
      o.use_emulator = true;
      o.emulator_options.assign(argv + i + 1, argv + argc);
      break;
    }
    if ((opt == "--file" || opt == "--backend") && i + 1 < argc) {
      (opt == "--file" ? o.config : o.backend) = argv[++i];
      continue;
    }
    return false;
  }
  return o.use_emulator != !o.config.empty();
}

}  // namespace

int main(int argc, char** argv) {
  console_options o;
  if (wants_help(argc, argv)) {
    std::fputs(usage_text, stdout);
    return 0;
  }
  if (!parse_options(argc, argv, o)) {
    std::fputs(usage_text, stderr);
    return 2;
  }
  if (o.backend.empty()) o.backend = child_find_program("zeph_route_grass_valley");
  if (o.use_emulator) o.emulator = child_find_program("switcher_emulator");
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

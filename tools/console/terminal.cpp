#include "console/terminal.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#ifdef ZEPH_LINE_EDITING
#include <editline/readline.h>
#endif

namespace {

bool interactive = false;
std::string pending;            // plain input after the last "\n"
bool ended = false;

#ifdef ZEPH_LINE_EDITING
bool editing = false;           // the line-editing library owns the input line
std::vector<std::string>* completed = nullptr;  // where the editor's callback puts a line

// Called by the library with each line typed, or nullptr at end of input.
// The library has left its character mode by then and would read the next
// line whole, blocking; terminal_prompt installs the handler again, which
// starts a fresh line in character mode once the command is done.
void on_line(char* line) {
  editing = false;
  if (line == nullptr) {
    ended = true;
    std::fputs("\n", stdout);
    return;
  }
  if (*line != '\0') add_history(line);
  if (completed != nullptr) completed->push_back(line);
  std::free(line);
}
#endif

}  // namespace

void terminal_open(bool is_terminal) {
  interactive = is_terminal;
  // Output and prompts reach the terminal or the script's reader at once.
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
}

bool terminal_interactive() { return interactive; }

bool terminal_read(std::vector<std::string>& lines) {
  if (ended) return false;
#ifdef ZEPH_LINE_EDITING
  if (editing) {
    completed = &lines;
    rl_callback_read_char();
    completed = nullptr;
    return !ended;
  }
#endif
  char buf[4096];
  const ssize_t n = read(STDIN_FILENO, buf, sizeof buf);
  if (n < 0 && (errno == EINTR || errno == EAGAIN)) return true;
  if (n <= 0) {
    // A last line without its "\n" still counts.
    if (!pending.empty()) lines.push_back(pending);
    pending.clear();
    ended = true;
    return false;
  }
  pending.append(buf, static_cast<std::size_t>(n));
  for (std::size_t nl; (nl = pending.find('\n')) != std::string::npos; pending.erase(0, nl + 1)) {
    std::string line = pending.substr(0, nl);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(line);
  }
  return true;
}

void terminal_prompt(const std::string& prompt) {
  if (!interactive || ended) return;
#ifdef ZEPH_LINE_EDITING
  static std::string shown;  // the library keeps a pointer to it
  if (editing && shown == prompt) return;
  shown = prompt;
  rl_callback_handler_install(shown.c_str(), on_line);
  editing = true;
  return;
#endif
  std::fputs(prompt.c_str(), stdout);
  std::fflush(stdout);
}

void terminal_echo(const std::string& prompt, const std::string& line) {
  if (!interactive) std::printf("%s%s\n", prompt.c_str(), line.c_str());
}

void terminal_print(const std::string& line) {
#ifdef ZEPH_LINE_EDITING
  if (editing) {
    // Erase the prompt and the line being typed, print, then draw them again.
    std::printf("\r\033[K%s\n", line.c_str());
    rl_forced_update_display();
    return;
  }
#endif
  std::printf("%s\n", line.c_str());
}

void terminal_close() {
#ifdef ZEPH_LINE_EDITING
  if (editing) {
    rl_callback_handler_remove();
    std::fputs("\r\033[K", stdout);  // the prompt left on the screen
  }
  editing = false;
#endif
  std::fflush(stdout);
}

#include "switcher_emulator/control.h"

#include <cstdio>

namespace {

// Splits off the first blank-separated word of rest; rest keeps what follows
// after the blanks behind that word.
std::string next_word(std::string& rest) {
  const std::size_t start = rest.find_first_not_of(' ');
  if (start == std::string::npos) {
    rest.clear();
    return "";
  }
  std::size_t end = rest.find(' ', start);
  if (end == std::string::npos) end = rest.size();
  std::string word = rest.substr(start, end - start);
  const std::size_t after = rest.find_first_not_of(' ', end);
  rest = after == std::string::npos ? "" : rest.substr(after);
  return word;
}

void list_routes(const emulator_config& cfg, const emulator_state& st, std::string& out) {
  char line[64];
  for (std::size_t i = 0; i < st.routes.size(); ++i) {
    const std::uint32_t source = cfg.input_base + st.routes[i];  // switcher numbers are 32-bit
    std::snprintf(line, sizeof line, "route %llu %llu\n",
                  static_cast<unsigned long long>(cfg.output_base) + i,
                  static_cast<unsigned long long>(source));
    out += line;
  }
}

}  // namespace

bool parse_decimal(const std::string& text, std::uint64_t max, std::uint64_t& value) {
  if (text.empty() || text.size() > 19) return false;
  value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + static_cast<unsigned>(c - '0');
  }
  return value <= max;
}

void control_line(const emulator_config& cfg, emulator_state& st, const std::string& line,
                  std::string& out, bool& quit) {
  std::string rest = line;
  if (!rest.empty() && rest.back() == '\r') rest.pop_back();
  const std::string cmd = next_word(rest);
  const char* error = nullptr;
  std::uint64_t a = 0;
  std::uint64_t b = 0;
  if (cmd == "take") {
    const std::string dest = next_word(rest);
    const std::string src = next_word(rest);
    if (!parse_decimal(dest, UINT32_MAX, a) || !parse_decimal(src, UINT32_MAX, b) ||
        !rest.empty()) {
      error = "usage: take DEST SOURCE";
    } else if (!emulator_take(cfg, st, a, b)) {
      error = "no such destination or source";
    }
  } else if (cmd == "rename") {
    const std::string which = next_word(rest);
    const std::string number = next_word(rest);
    if ((which != "output" && which != "input") || !parse_decimal(number, UINT32_MAX, a) ||
        rest.empty()) {
      error = "usage: rename output|input N NAME";
    } else if (!emulator_rename(cfg, st, which == "output", a, rest)) {
      error = "no such destination or source, or a bad name";
    }
  } else if (cmd == "protect" || cmd == "unprotect") {
    if (!parse_decimal(next_word(rest), UINT32_MAX, a) || !rest.empty()) {
      error = cmd == "protect" ? "usage: protect DEST" : "usage: unprotect DEST";
    } else if (!emulator_protect_output(cfg, st, a, cmd == "protect")) {
      error = "no such destination";
    }
  } else if (cmd == "routes" && rest.empty()) {
    list_routes(cfg, st, out);
  } else if (cmd == "flags" && rest.empty()) {
    char text[32];
    std::snprintf(text, sizeof text, "flags %X\n", st.change_flags);
    out += text;
  } else if (cmd == "quit" && rest.empty()) {
    quit = true;
  } else if (cmd.empty()) {
    error = "empty line";
  } else {
    error = "unknown control";
  }
  out += error ? std::string("error ") + error + "\n" : std::string("ok\n");
}

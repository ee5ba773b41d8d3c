#include "console/commands.h"

#include <cstdio>
#include <cstdlib>
#include <map>
#include <vector>

#include "console/session.h"
#include "console/terminal.h"
#include "console/view.h"
#include "console/words.h"

namespace {

using word_list = std::vector<console_word>;

constexpr int wait_ms = 30000;
constexpr int routing_report_ms = 2000;  // after a "report outputs" reply

// Route changes added and not flushed or discarded, and flushed ones that no
// "wait routes" has seen confirmed yet: output -> input.
std::map<long, long> added;
std::map<long, long> flushed;

struct command {
  const char* name;
  const char* usage;    // after the name
  const char* what;
  const char* example;
  std::size_t min_words, max_words;  // after the name
  // words: those after the name; rest: the line after the name, as typed.
  void (*run)(const word_list& words, const std::string& rest);
};

void print_lines(const std::vector<std::string>& lines) {
  for (const std::string& l : lines) terminal_print(l);
}

// The position an OUT (output: true) or IN word names. Until the backend has
// reported the names, counts and names are not the switcher's yet: it waits
// for them first. False, with the error shown, when the word names nothing.
bool resolve(bool output, const console_word& word, long& position) {
  const report_tables& t = console_tables();
  if (!console_wait_names(output) && console_backend_ended()) {
    return false;
  }
  std::string error;
  position = words_position(t, output, word, error);
  if (position < 0) console_error(error);
  return position >= 0;
}

bool add(const word_list& w) {
  long output = -1;
  long input = -1;
  if (!resolve(true, w[0], output) || !resolve(false, w[1], input)) return false;
  if (!console_request(client_route_request("add", input, output),
                       "add " + view_route(console_tables(), output, input))) {
    return false;
  }
  added[output] = input;
  return true;
}

bool flush() {
  if (!console_request(client_route_request("flush"), "flush")) return false;
  for (const auto& [output, input] : added) flushed[output] = input;  // the newer wins
  added.clear();
  return true;
}

void run_take(const word_list& w, const std::string&) {
  if (add(w)) (void)flush();
}

void run_add(const word_list& w, const std::string&) { (void)add(w); }

void run_report(const word_list& w, const std::string&) {
  const std::string& what = w[0].text;
  if (what != "outputs" && what != "inputs") {
    console_error("report what? outputs or inputs");
    return;
  }
  if (!console_request(client_report_request(what), "report " + what)) return;
  const report_tables& t = console_tables();
  if (what == "inputs") {
    // The backend answers and sends nothing more: the table is the last one.
    terminal_print("inputs: no report follows; the latest has " + std::to_string(t.inputs.size()) +
                   " names (show inputs)");
  } else if (!console_wait_report("routes", routing_report_ms) && !console_backend_ended()) {
    terminal_print("routes: no routing report followed: the switcher is not connected");
  }
}

void run_set(const word_list& w, const std::string&) {
  parent_message m;
  m.type = "message";
  m.command = "set";
  m.fields["name"] = w[0].text;
  m.fields["value"] = w[1].text;
  std::string text;
  parent_message_serialise(m, text);
  console_send_text(text);
  terminal_print("sent: set " + w[0].text + " = " + w[1].text + " (settings get no reply)");
}

void run_show(const word_list& w, const std::string&) {
  const report_tables& t = console_tables();
  if (w[0].text == "routes") print_lines(view_routes(t));
  else if (w[0].text == "inputs") print_lines(view_names(t, false));
  else if (w[0].text == "outputs") print_lines(view_names(t, true));
  else if (w[0].text == "info") print_lines(view_info(t));
  else console_error("show what? routes, inputs, outputs or info");
}

void run_log(const word_list& w, const std::string&) {
  struct level_name {
    const char* name;
    diag_level level;
  };
  const level_name levels[] = {{"err", diag_level::err},
                               {"warn", diag_level::warn},
                               {"note", diag_level::note},
                               {"dbg", diag_level::dbg}};
  for (const level_name& l : levels) {
    if (w[0].text == l.name) {
      console_set_level(l.level);
      return;
    }
  }
  console_error("log level must be err, warn, note or dbg");
}

// A wait cut short by the backend's end says nothing more: the end is shown.
void run_wait(const word_list& w, const std::string&) {
  if (w.empty()) {
    if (!console_wait_tables(wait_ms) && !console_backend_ended()) {
      console_error("the backend did not report names and routes within 30 s");
    }
    return;
  }
  const std::string& what = w[0].text;
  if (what == "routes") {
    // The takes flushed since the last wait, confirmed; or else any change.
    const bool confirmed = console_wait_routes(flushed, wait_ms);
    if (!confirmed && !console_backend_ended()) {
      console_error(flushed.empty() ? "no route changed within 30 s"
                                    : "the switcher did not confirm the takes within 30 s");
    }
    flushed.clear();
  } else if (what != "info" && what != "inputs" && what != "outputs") {
    console_error("wait for what? info, inputs, outputs or routes, or nothing");
  } else if (!console_wait_report(what, wait_ms) && !console_backend_ended()) {
    console_error("no " + what + " report within 30 s");
  }
}

void run_sleep(const word_list& w, const std::string&) {
  char* end = nullptr;
  const double s = std::strtod(w[0].text.c_str(), &end);
  if (end == w[0].text.c_str() || *end != '\0' || !(s >= 0 && s <= 60)) {
    console_error("sleep takes seconds from 0 to 60");
    return;
  }
  console_sleep(static_cast<int>(s * 1000));
}

void run_help(const word_list&, const std::string&);

const command commands[] = {
    {"take", "OUT IN", "add a route change and flush it", "take 2 5", 2, 2, run_take},
    {"add", "OUT IN", "queue a route change", "add \"OUT 3\" \"CAM 6\"", 2, 2, run_add},
    {"flush", "", "send the queued changes", "flush", 0, 0,
     [](const word_list&, const std::string&) { (void)flush(); }},
    {"discard", "", "drop the queued changes", "discard", 0, 0,
     [](const word_list&, const std::string&) {
       if (console_request(client_route_request("discard"), "discard")) added.clear();
     }},
    {"report", "outputs|inputs", "ask for a report", "report outputs", 1, 1, run_report},
    {"set", "KEY VALUE", "apply a configuration key", "set outputs 4", 2, 2, run_set},
    {"show", "routes|inputs|outputs|info", "the latest reports as a table", "show routes", 1, 1,
     run_show},
    {"log", "LEVEL", "lowest diagnostic level shown: err, warn, note, dbg", "log dbg", 1, 1,
     run_log},
    {"raw", "", "send the record typed next, up to an empty line", "raw", 0, 0,
     [](const word_list&, const std::string&) { console_start_raw(); }},
    {"wait", "[info|inputs|outputs|routes]",
     "for names and routes, the next such report, or (routes) the takes confirmed", "wait routes",
     0, 1, run_wait},
    {"sleep", "SECONDS", "pause, showing what arrives", "sleep 1.5", 1, 1, run_sleep},
    {"emulator", "CONTROL", "a control for the emulator of --emulator",
     "emulator rename output 1 Studio A", 1, 99, [](const word_list&, const std::string& rest) {
       (void)console_emulator(rest);
     }},
    {"help", "", "this list", "help", 0, 0, run_help},
    {"quit", "", "stop the backend and leave", "quit", 0, 0,
     [](const word_list&, const std::string&) { console_quit(); }},
};

void run_help(const word_list&, const std::string&) {
  for (const command& c : commands) {
    const std::string use = std::string(c.name) + (*c.usage ? " " : "") + c.usage;
    char line[200];
    std::snprintf(line, sizeof line, "  %-34s %-52s e.g. %s", use.c_str(), c.what, c.example);
    terminal_print(line);
  }
  terminal_print("OUT and IN are zero-based positions, or names from the latest reports");
  terminal_print("(in double quotes when they hold blanks; a backslash keeps the next");
  terminal_print("character as it is: \"Studio \\\"A\\\"\").");
}

}  // namespace

void commands_run(const std::string& line) {
  word_list words;
  std::string error;
  if (!words_split(line, words, error)) {
    console_error(error);
    return;
  }
  if (words.empty() || words[0].text[0] == '#') return;
  for (const command& c : commands) {
    if (words[0].text != c.name || words[0].quoted) continue;
    const std::size_t n = words.size() - 1;
    if (n < c.min_words || n > c.max_words) {
      console_error(std::string(c.name) + " takes " +
                    (*c.usage ? c.usage : "nothing more") + " (e.g. " + c.example + ")");
      return;
    }
    const std::size_t at = line.find(c.name) + std::string(c.name).size();
    const std::size_t rest = line.find_first_not_of(" \t", at);
    c.run(word_list(words.begin() + 1, words.end()),
          rest == std::string::npos ? "" : line.substr(rest));
    return;
  }
  console_error("unknown command \"" + words[0].text + "\" (help lists them)");
}

#pragma once

#include <string>
#include <vector>

// The console's own standard input and output. On a terminal, lines are
// edited with history when the console was built with the line-editing
// library, and printed output never runs through the line being typed; plain
// lines otherwise. Not on a terminal, every command read is echoed after the
// prompt, so that a script's output reads like a session.

// Starts reading standard input; interactive says whether it is a terminal.
void terminal_open(bool interactive);

// Whether standard input is a terminal (as given to terminal_open).
[[nodiscard]] bool terminal_interactive();

// Reads what standard input holds now (call when it is readable) and appends
// each completed line to lines. False once it has ended.
[[nodiscard]] bool terminal_read(std::vector<std::string>& lines);

// Shows the prompt for the next line ("> ", or "raw> " inside a raw record).
void terminal_prompt(const std::string& prompt);

// Echoes a command read from a script (not on a terminal) after the prompt.
void terminal_echo(const std::string& prompt, const std::string& line);

// Prints one line of output (without "\n").
void terminal_print(const std::string& line);

// Gives the terminal back as it was.
void terminal_close();

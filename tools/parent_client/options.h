#pragma once

#include <functional>
#include <string>
#include <vector>

// The command line every parent program of the backend shares: --file CFG,
// or --emulator followed by the emulator's own options (the rest of the
// line); --backend PATH; -h or --help. Each program's own options, each
// followed by its value, come on top.

struct parent_options {
  std::string config;    // --file
  std::string backend;   // --backend, else the backend found beside the program
  std::string emulator;  // with --emulator: the emulator found beside the program
  bool use_emulator = false;
  std::vector<std::string> emulator_options;
};

// An option of the program's own and what takes its value: "" when it
// takes it, else why not (said after the option's name).
struct own_option {
  const char* name;
  std::function<std::string(const std::string& value)> apply;
};

// Parses argv into o. Returns -1 to go on; 0 after printing usage on
// standard output for --help; 2 after one line on standard error that names
// what is wrong ("PROGRAM: unknown option --x (see --help)").
[[nodiscard]] int parent_options_parse(int argc, char** argv, const char* program,
                                       const char* usage, const std::vector<own_option>& own,
                                       parent_options& o);

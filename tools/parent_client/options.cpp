#include "parent_client/options.h"

#include <cstdio>

#include "parent_client/child.h"

namespace {

int fail(const char* program, const std::string& why) {
  std::fprintf(stderr, "%s: %s\n", program, why.c_str());
  return 2;
}

}  // namespace

int parent_options_parse(int argc, char** argv, const char* program, const char* usage,
                         const std::vector<own_option>& own, parent_options& o) {
  // The shared options are looked up as the program's own are.
  const auto setter = [](std::string& field) {
    return [&field](const std::string& v) {
      field = v;
      return std::string();
    };
  };
  std::vector<own_option> all = own;
  all.push_back({"--file", setter(o.config)});
  all.push_back({"--backend", setter(o.backend)});
  for (int i = 1; i < argc; ++i) {
    const std::string opt = argv[i];
    if (opt == "-h" || opt == "--help") {
      std::fputs(usage, stdout);
      return 0;
    }
    if (opt == "--emulator") {
      o.use_emulator = true;
      o.emulator_options.assign(argv + i + 1, argv + argc);
      break;
    }
    const own_option* known = nullptr;
    for (const own_option& k : all) {
      if (opt == k.name) known = &k;
    }
    if (known == nullptr) return fail(program, "unknown option " + opt + " (see --help)");
    if (i + 1 >= argc) return fail(program, opt + " wants a value (see --help)");
    std::string why = known->apply(argv[++i]);
    if (!why.empty()) return fail(program, why.insert(0, opt + " "));
  }
  if (o.use_emulator && !o.config.empty()) {
    return fail(program, "--file and --emulator exclude each other");
  }
  if (!o.use_emulator && o.config.empty()) {
    return fail(program, "--file CFG or --emulator is needed (see --help)");
  }
  if (o.backend.empty()) o.backend = child_find_program("zeph_route_grass_valley");
  if (o.use_emulator) o.emulator = child_find_program("switcher_emulator");
  return -1;
}

#include "app/process.h"

#include <sys/stat.h>

#include <csignal>
#include <cstring>
#include <string>

#include "app/main_loop.h"
#include "base/config.h"
#include "base/diag.h"
#include "base/flags.h"
#include "model/tables.h"
#include "parent/channel.h"

namespace {

std::string config_path;  // from --file; empty until given
std::string metadir;      // derived from config_path; only tested for emptiness

// Keys applied at every start-up, with an empty value when the file lacks
// them, so the configured counts never depend on what the file leaves out.
constexpr const char* seeded_keys[] = {"inputs", "outputs"};

void on_signal(int sig) {
  if (sig == SIGHUP || sig == SIGINT || sig == SIGPIPE || sig == SIGTERM) request_quit();
}

void write_usage(const char* argv0) {
  diag("Grass Valley routing switcher backend process.\n");
  diag("%s: [options]\n", argv0);
  diag(" --file <path>\n");
}

// Parses the arguments after argv[0]. Returns -1 to go on with start-up, or
// the exit status when the process must stop here.
int parse_command_line(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const char* arg = argv[i];
    if (arg[0] != '-') {
      // Stray words are reported but do not stop start-up.
      diag("Unknown argument '%s'\n", arg);
      continue;
    }
    const char* name = arg;
    while (*name == '-') ++name;  // any number of dashes names the same switch
    if (std::strcmp(name, "h") == 0 || std::strcmp(name, "help") == 0) {
      write_usage(argv[0]);
      return 1;
    }
    if (std::strcmp(name, "file") == 0) {
      if (i + 1 >= argc) return 1;  // silently: nothing to name
      config_path = argv[++i];
      continue;
    }
    diag("Unknown switch '%s'\n", name);
    return 1;
  }
  return -1;
}

// Start-up checks 1 to 4. Returns false after writing why.
bool check_environment() {
  if (config_path.empty()) {
    diag("No file path specified, use --file option. See --help for details\n");
    return false;
  }
  // lstat, not stat: a symbolic link is refused even when it points at a file.
  struct stat st{};
  if (lstat(config_path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
    diag("File path '%s' is not valid. Must exist and it must be a file.\n", config_path.c_str());
    return false;
  }
  metadir = derive_metadir(config_path);
  if (metadir.empty()) {
    diag("Cannot determine metadir\n");
    return false;
  }
  if (parent_channel_prepare() != 0) {
    diag("Failed to prepare communications with parent process\n");
    return false;
  }
  return true;
}

// Reads the file and applies every key in key order, then fixes the active
// counts. Returns false after writing why.
bool load_configuration() {
  config_map map;
  for (const char* key : seeded_keys) map[key].clear();
  if (read_configuration(map, config_path) != 0) {
    diag("<ERR>Failure to read configuration\n");
    return false;
  }
  for (const auto& [key, value] : map) apply_config_key(key, value);
  recompute_active_counts(router_input_count(), router_output_count());
  // The counts are fresh; the first pass need not recompute them.
  clear_flag(process_flag::counts_changed);
  return true;
}

}  // namespace

int process_main(int argc, char** argv) {
  const int status = parse_command_line(argc, argv);
  if (status >= 0) return status;
  if (!check_environment() || !load_configuration()) return 1;

  // Until here the default actions apply, so a signal during start-up ends
  // the process at once.
  std::signal(SIGTERM, on_signal);
  std::signal(SIGPIPE, on_signal);
  std::signal(SIGHUP, on_signal);
  std::signal(SIGINT, on_signal);

  run_main_loop();
  return 0;
}

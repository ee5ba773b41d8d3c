#include "base/config.h"

#include <sys/file.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/diag.h"
#include "base/flags.h"

namespace {

// Each fgets yields at most 4095 bytes; a longer line is read as several.
constexpr int line_buffer_bytes = 4096;
// No switcher position beyond this is ever used, whatever is configured.
constexpr std::uint64_t max_active_count = 256;
// Inserted before the file name to form the metadir.
constexpr const char* metadir_suffix = ".tessikmeta.";

// The settings. The process starts from these values and the test reset
// returns to them, so the two cannot drift apart.
struct settings {
  std::uint64_t config_inputs = 0;   // 0: use the switcher's count
  std::uint64_t config_outputs = 0;  // 0: use the switcher's count
  std::string address;               // empty: no connection is attempted
  std::int32_t port = -1;            // below 1: the default port
  std::uint64_t active_in = 0;
  std::uint64_t active_out = 0;
};
settings current;

// Adds one line as read by fgets (NUL-terminated, "\n" kept if it fitted).
void add_config_line(config_map& map, const char* text) {
  if (text[0] == '#' || text[0] == '\n' || text[0] == '\0') return;
  const char* eq = std::strchr(text, '=');
  if (eq == nullptr) return;

  std::string key(text, eq);
  const char* value = eq + 1;
  // One blank on each side of "=" belongs to the syntax, but the blank after
  // it is only dropped when the blank before it was.
  if (eq != text && eq[-1] == ' ') {
    key.pop_back();
    if (*value == ' ') ++value;
  }
  // The value ends before the line end; a "\r" before it stays.
  const std::size_t len = std::strcspn(value, "\n");

  std::string& slot = map[key];
  if (!slot.empty()) slot += '\n';
  slot.append(value, len);
}

// The decimal number at the start of text, cut to 32 bits as the settings
// hold it; no digits give 0.
std::int32_t leading_number(const std::string& text) {
  return static_cast<std::int32_t>(std::strtol(text.c_str(), nullptr, 10));
}

// A count: negative numbers wrap to huge ones and so end up at the cap.
std::uint64_t count_value(const std::string& text) {
  if (text.empty()) return 0;
  return static_cast<std::uint64_t>(static_cast<std::int64_t>(leading_number(text)));
}

void set_count(std::uint64_t& setting, const std::string& text) {
  const std::uint64_t v = count_value(text);
  if (v == setting) return;
  setting = v;
  raise_flag(process_flag::counts_changed);
}

// A changed address or port needs a new connection.
void link_setting_changed() {
  raise_flag(process_flag::reconnect_requested);
  raise_flag(process_flag::counts_changed);
}

std::uint64_t active_count(std::uint64_t configured, std::uint64_t reported) {
  const std::uint64_t n = configured != 0 ? configured : reported;
  return n > max_active_count ? max_active_count : n;
}

}  // namespace

int read_configuration(config_map& map, const std::string& path) {
  FILE* f = std::fopen(path.c_str(), "r");
  if (f == nullptr) return -1;
  // Waits for as long as another process holds the lock; closing the file
  // releases it.
  if (flock(fileno(f), LOCK_EX) != 0) {
    std::fclose(f);
    return -1;
  }
  char buf[line_buffer_bytes];
  while (std::fgets(buf, sizeof buf, f) != nullptr) add_config_line(map, buf);
  const bool failed = std::ferror(f) != 0;
  std::fclose(f);
  return failed ? -1 : 0;
}

void apply_config_key(const std::string& key, const std::string& value) {
  if (key == "inputs") {
    set_count(current.config_inputs, value);
  } else if (key == "outputs") {
    set_count(current.config_outputs, value);
  } else if (key == "ip address") {
    if (value == current.address) return;
    current.address = value;
    link_setting_changed();
  } else if (key == "port") {
    const std::int32_t p = value.empty() ? -1 : leading_number(value);
    if (p == current.port) return;
    current.port = p;
    link_setting_changed();
  }
}

void recompute_active_counts(std::uint64_t reported_inputs, std::uint64_t reported_outputs) {
  const std::uint64_t old_in = current.active_in;
  const std::uint64_t old_out = current.active_out;
  current.active_in = active_count(current.config_inputs, reported_inputs);
  current.active_out = active_count(current.config_outputs, reported_outputs);
  if (current.active_in != old_in) {
    diag("<DBG>Changing number of inputs to %u\n", static_cast<unsigned>(current.active_in));
    raise_flag(process_flag::info_report_needed);
  }
  if (current.active_out != old_out) {
    diag("<DBG>Changing number of outputs to %u\n", static_cast<unsigned>(current.active_out));
    raise_flag(process_flag::info_report_needed);
  }
}

std::string derive_metadir(const std::string& path) {
  if (path.empty() || path.back() == '/') return {};
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return metadir_suffix + path;
  return path.substr(0, slash + 1) + metadir_suffix + path.substr(slash + 1);
}

std::uint64_t configured_inputs() { return current.config_inputs; }
std::uint64_t configured_outputs() { return current.config_outputs; }
const std::string& router_address() { return current.address; }
std::int32_t router_port() { return current.port; }
std::uint64_t active_inputs() { return current.active_in; }
std::uint64_t active_outputs() { return current.active_out; }

void reset_configuration() { current = settings{}; }

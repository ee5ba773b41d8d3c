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
// The cap on the active counts unless "active limit" says otherwise, and the
// most it may say: the tables hold 1024 positions above a base.
constexpr std::uint64_t default_active_limit = 256;
constexpr std::uint64_t largest_active_limit = 1024;
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
  // The optional keys (config.h).
  bool status_adds_base = false;
  status_level_setting status_level;
  us_time_t handshake_resend_us = 100'000;
  bool drop_while_down = false;
  std::uint64_t active_limit = default_active_limit;
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
  return n > current.active_limit ? current.active_limit : n;
}

// An optional key's value less trailing blanks and the "\r" of a file with
// CRLF line ends, so that such a file means what it shows.
std::string optional_value(const std::string& value) {
  return value.substr(0, value.find_last_not_of(" \t\r") + 1);
}

// A value made only of decimal digits, from low to high.
bool number_within(const std::string& text, std::uint64_t low, std::uint64_t high,
                   std::uint64_t& number) {
  if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  number = std::strtoull(text.c_str(), nullptr, 10);
  return number >= low && number <= high;
}

// One of two words: sets the flag to whether text is the second one.
bool one_of(const std::string& text, const char* no, const char* yes, bool& flag) {
  if (text != no && text != yes) return false;
  flag = text == yes;
  return true;
}

enum class optional_key { not_one, applied, refused };

optional_key applied_if(bool ok) { return ok ? optional_key::applied : optional_key::refused; }

// Applies key if it is one of the optional keys; refused when the value is not
// one the key takes, with kept the setting's current value in the key's words.
optional_key apply_optional_key(const std::string& key, const std::string& value, std::string& kept) {
  std::uint64_t n = 0;
  if (key == "status numbering") {
    kept = current.status_adds_base ? "base" : "plus one";
    return applied_if(one_of(value, "plus one", "base", current.status_adds_base));
  }
  if (key == "status level") {
    kept = current.status_level.first ? "first" : std::to_string(current.status_level.number);
    if (value != "first" && !number_within(value, 0, 31, n)) return optional_key::refused;
    current.status_level = {value == "first", static_cast<std::uint32_t>(n)};
    return optional_key::applied;
  }
  if (key == "handshake resend") {
    kept = std::to_string(current.handshake_resend_us / 1000);
    if (!number_within(value, 100, 5000, n)) return optional_key::refused;
    current.handshake_resend_us = static_cast<us_time_t>(n) * 1000;
    return optional_key::applied;
  }
  if (key == "flush while down") {
    kept = current.drop_while_down ? "drop" : "keep";
    return applied_if(one_of(value, "keep", "drop", current.drop_while_down));
  }
  if (key == "active limit") {
    kept = std::to_string(current.active_limit);
    if (!number_within(value, default_active_limit, largest_active_limit, n)) return optional_key::refused;
    if (n != current.active_limit) raise_flag(process_flag::counts_changed);
    current.active_limit = n;
    return optional_key::applied;
  }
  return optional_key::not_one;
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
  } else {
    std::string kept;
    if (apply_optional_key(key, optional_value(value), kept) == optional_key::refused) {
      diag("<WARN>Unknown value for \"%s\", keeping \"%s\"\n", key.c_str(), kept.c_str());
    }
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
bool status_query_adds_base() { return current.status_adds_base; }
status_level_setting status_query_level() { return current.status_level; }
us_time_t handshake_resend_us() { return current.handshake_resend_us; }
bool drop_flushes_while_down() { return current.drop_while_down; }
std::uint64_t active_count_limit() { return current.active_limit; }

void reset_configuration() { current = settings{}; }

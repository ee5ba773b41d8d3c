// Arbitrary file contents through the configuration reader, then every key
// applied and the active counts recomputed; the same bytes taken as a path
// for the metadir derivation.
//
// The contents go into an in-memory file opened by its /proc path, so the
// reader's fopen, flock and fgets run for real and nothing is left on disk.
//
// Checked:
// - reading succeeds; no key holds "=", "\n" or NUL or starts with "#"; no
//   value holds NUL or starts with "\n"; keys and values together are never
//   longer than the file (each line loses at least its "=", and a joining
//   "\n" replaces it);
// - after applying every key, the address is the file's "ip address" value
//   and both active counts are at most 256; applying every key again raises
//   no flag, and a second recomputation announces nothing;
// - the metadir is empty exactly for an empty path or one ending in "/",
//   and otherwise is the path with ".tessikmeta." inserted after its last
//   "/" (or in front, without one).
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "base/config.h"
#include "base/flags.h"
#include "fuzz_support.h"

namespace {

const std::string metadir_suffix = ".tessikmeta.";

int file_fd = -1;
std::string file_path;

void check_map(const config_map& map, std::size_t file_size) {
  std::size_t total = 0;
  for (const auto& [key, value] : map) {
    FUZZ_CHECK(key.find_first_of(std::string("=\n\0", 3)) == std::string::npos);
    FUZZ_CHECK(key.empty() || key[0] != '#');
    FUZZ_CHECK(value.find('\0') == std::string::npos);
    FUZZ_CHECK(value.empty() || value[0] != '\n');
    total += key.size() + value.size();
  }
  FUZZ_CHECK(total <= file_size);
}

void clear_flags() {
  reset_process_flags();
  clear_flag(process_flag::counts_changed);
  clear_flag(process_flag::info_report_needed);
}

bool any_flag_raised() {
  return flag_is_set(process_flag::counts_changed) ||
         flag_is_set(process_flag::reconnect_requested) ||
         flag_is_set(process_flag::info_report_needed);
}

void check_applied(const config_map& map) {
  reset_configuration();
  clear_flags();
  for (const auto& [key, value] : map) apply_config_key(key, value);
  recompute_active_counts(0, 0);
  const auto address = map.find("ip address");
  FUZZ_CHECK(router_address() == (address == map.end() ? std::string() : address->second));
  const std::uint64_t limit = active_count_limit();
  FUZZ_CHECK(limit >= 256 && limit <= 1024);
  FUZZ_CHECK(active_inputs() <= limit && active_outputs() <= limit);

  // Applying the same values again changes nothing.
  clear_flags();
  for (const auto& [key, value] : map) apply_config_key(key, value);
  recompute_active_counts(0, 0);
  FUZZ_CHECK(!any_flag_raised());
}

void check_metadir(const std::string& path) {
  const std::string metadir = derive_metadir(path);
  if (path.empty() || path.back() == '/') {
    FUZZ_CHECK(metadir.empty());
    return;
  }
  const std::size_t slash = path.rfind('/');
  const std::size_t at = slash == std::string::npos ? 0 : slash + 1;
  FUZZ_CHECK(metadir.size() == path.size() + metadir_suffix.size());
  FUZZ_CHECK(metadir.compare(at, metadir_suffix.size(), metadir_suffix) == 0);
  FUZZ_CHECK(metadir.substr(0, at) + metadir.substr(at + metadir_suffix.size()) == path);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  fuzz::silence_diagnostics(argc, argv);
  file_fd = memfd_create("zeph-config", MFD_CLOEXEC);
  if (file_fd < 0) fuzz::fail("memfd_create");
  file_path = "/proc/self/fd/" + std::to_string(file_fd);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FUZZ_CHECK(ftruncate(file_fd, 0) == 0);
  FUZZ_CHECK(pwrite(file_fd, data, size, 0) == static_cast<ssize_t>(size));

  config_map map;
  FUZZ_CHECK(read_configuration(map, file_path) == 0);
  check_map(map, size);
  check_applied(map);
  check_metadir(std::string(reinterpret_cast<const char*>(data), size));
  return 0;
}

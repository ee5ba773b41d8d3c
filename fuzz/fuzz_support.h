#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// The entry points libFuzzer calls; declared here so every target defines
// them against one signature.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

// A descriptor on the real standard error, kept before it is silenced, so a
// failed check can still say what failed.
inline int report_fd = 2;

// The code under test writes a diagnostic line for nearly every odd byte.
// libFuzzer's -close_fd_mask=2 sends descriptor 2 to /dev/null while its own
// output and the sanitizer reports move to a copy of the original, so that is
// added to the arguments unless the caller chose a mask. Standard error is
// then fully buffered: nobody reads it, and a write per line would dominate.
inline void silence_diagnostics(int* argc, char*** argv) {
  for (int i = 1; i < *argc; ++i) {
    if (std::strncmp((*argv)[i], "-close_fd_mask=", 15) == 0) return;
  }
  report_fd = dup(2);
  if (report_fd < 0) report_fd = 2;
  static char mask[] = "-close_fd_mask=2";
  // libFuzzer reads the arguments after this hook returns; the new vector
  // must outlive the run.
  char** args = static_cast<char**>(std::calloc(static_cast<std::size_t>(*argc) + 2, sizeof(char*)));
  if (args == nullptr) return;
  for (int i = 0; i < *argc; ++i) args[i] = (*argv)[i];
  args[*argc] = mask;
  ++*argc;
  *argv = args;
  static char buffer[1 << 16];
  std::setvbuf(stderr, buffer, _IOFBF, sizeof buffer);
}

// A broken invariant: say which, then abort so libFuzzer keeps the input.
[[noreturn]] inline void fail(const char* what) {
  dprintf(report_fd, "fuzz invariant broken: %s\n", what);
  std::abort();
}

}  // namespace fuzz

// Checks an invariant of the code under test; unlike assert it names the
// condition in the report and can never be compiled out.
#define FUZZ_CHECK(cond) \
  do {                   \
    if (!(cond)) ::fuzz::fail(#cond); \
  } while (0)

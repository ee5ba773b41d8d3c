#include "base/diag.h"

#include <cstdarg>
#include <cstdio>

void diag(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::vfprintf(stderr, fmt, ap);
  va_end(ap);
}

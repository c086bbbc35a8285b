// The runtime's (msvcrt) formatter for single floating-point and pointer
// conversions. msvcrt knows long double only as double: an "L" conversion is
// given the value as a double without the "L".
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "frame/format.h"
#include "frame/win32/win.h"

namespace ll::os {
namespace {

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
int run(char *out, size_t cap, const char *conv, ...) {
  va_list ap, aq;
  va_start(ap, conv);
  va_copy(aq, ap);
  const int need = _vscprintf(conv, ap);
  va_end(ap);
  if (need >= 0 && cap > 0) {
    const int n = _vsnprintf(out, cap - 1, conv, aq);
    out[(n >= 0 && static_cast<size_t>(n) < cap) ? static_cast<size_t>(n) : cap - 1] = 0;
  }
  va_end(aq);
  return need;
}
#pragma GCC diagnostic pop

}  // namespace

int rt_format_double(char *out, size_t cap, const char *conv, double v) noexcept {
  return run(out, cap, conv, v);
}

int rt_format_ldouble(char *out, size_t cap, const char *conv, long double v) noexcept {
  char plain[64];
  size_t j = 0;
  for (size_t i = 0; conv[i] && j + 1 < sizeof plain; ++i)
    if (conv[i] != 'L') plain[j++] = conv[i];
  plain[j] = 0;
  return run(out, cap, plain, static_cast<double>(v));
}

int rt_format_pointer(char *out, size_t cap, const char *conv, const void *p) noexcept {
  return run(out, cap, conv, p);
}

}  // namespace ll::os

// The runtime's formatter for single floating-point and pointer conversions.
#include <cstdio>

#include "frame/format.h"

namespace ll::os {

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
int rt_format_double(char *out, size_t cap, const char *conv, double v) noexcept {
  return std::snprintf(out, cap, conv, v);
}

int rt_format_ldouble(char *out, size_t cap, const char *conv, long double v) noexcept {
  return std::snprintf(out, cap, conv, v);
}

int rt_format_pointer(char *out, size_t cap, const char *conv, const void *p) noexcept {
  return std::snprintf(out, cap, conv, p);
}
#pragma GCC diagnostic pop

}  // namespace ll::os

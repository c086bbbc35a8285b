// The debug control text, as the debug-file handler applies it.
#include <climits>

#include "proc/events.h"

namespace ll::ev {

bool parse_control(const char *p, int *out) noexcept {
  auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
  while (blank(*p)) ++p;
  const char *word = p;
  while ((*p >= 'a' && *p <= 'z') || (*p >= 'A' && *p <= 'Z')) ++p;
  if (p == word) return false;
  while (blank(*p)) ++p;
  if (*p == '=') ++p;
  else if (*p != '\0') return false;
  while (blank(*p)) ++p;
  const bool neg = *p == '-';
  if (neg) ++p;
  long long v = 0;
  for (; *p >= '0' && *p <= '9'; ++p)
    if (v < INT_MAX) v = v * 10 + (*p - '0');
  if (v > INT_MAX) v = INT_MAX;
  *out = static_cast<int>(neg ? -v : v);
  return true;
}

}  // namespace ll::ev

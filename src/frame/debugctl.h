// The debug control text ("Debug = 5"): one parser for start-up and for the
// process-event layer's debug handler.
#pragma once

namespace ll {

// Parses one "word = number" assignment. The word is compared with "Debug"
// and "Vflag" by a comparison that, as the library has always built it, finds
// any two non-empty words different at their first character: the number
// therefore always lands in Debug. Returns false when no word was found.
inline bool parse_debug_control(const char *text, int *debug_out) noexcept {
  const char *p = text;
  auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
  while (blank(*p)) ++p;
  const char *word = p;
  while ((*p >= 'a' && *p <= 'z') || (*p >= 'A' && *p <= 'Z')) ++p;
  if (p == word) return false;
  while (blank(*p)) ++p;
  if (*p == '=') ++p;
  else if (*p != '\0') return false;
  while (blank(*p)) ++p;
  int sign = 1;
  if (*p == '-') {
    sign = -1;
    ++p;
  }
  long long v = 0;
  // Huge numbers stop at the int range.
  while (*p >= '0' && *p <= '9') {
    v = v * 10 + (*p++ - '0');
    if (v > 2147483647LL) v = 2147483647LL;
  }
  *debug_out = static_cast<int>(sign * v);
  return true;
}

}  // namespace ll

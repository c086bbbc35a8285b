// The event log's two stored forms of a message, from arbitrary bytes and an
// arbitrary cap: the UTF-16 form stays within the cap, every line feed follows
// a carriage return and no surrogate is left alone; the system log's form is
// valid UTF-8 within the cap and does not end with a line end.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

extern "C" size_t llt_eventlog_wide(const char *utf8, char16_t *out, size_t cap);
extern "C" size_t llt_eventlog_text(const char *utf8, char *out, size_t cap);

namespace {
bool valid_utf8(const unsigned char *s, size_t n) {
  for (size_t i = 0; i < n;) {
    const unsigned c = s[i];
    size_t len = c < 0x80 ? 1 : (c & 0xE0) == 0xC0 ? 2 : (c & 0xF0) == 0xE0 ? 3 : (c & 0xF8) == 0xF0 ? 4 : 0;
    if (!len || i + len > n) return false;
    for (size_t k = 1; k < len; ++k)
      if ((s[i + k] & 0xC0) != 0x80) return false;
    i += len;
  }
  return true;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  const size_t cap = (data[0] | static_cast<size_t>(data[1]) << 8) % 4096;
  std::string text(reinterpret_cast<const char *>(data + 2), size - 2);
  text = text.c_str();  // up to the first NUL, as a C string

  std::vector<char16_t> wide(cap + 1, u'?');
  const size_t n = llt_eventlog_wide(text.c_str(), wide.data(), cap);
  if (n > cap || wide[n] != 0) std::abort();
  for (size_t i = 0; i < n; ++i) {
    const char16_t u = wide[i];
    if (u == u'\n' && (i == 0 || wide[i - 1] != u'\r')) std::abort();
    if (u >= 0xD800 && u <= 0xDBFF && (i + 1 >= n || wide[i + 1] < 0xDC00 || wide[i + 1] > 0xDFFF)) std::abort();
    if (u >= 0xDC00 && u <= 0xDFFF && (i == 0 || wide[i - 1] < 0xD800 || wide[i - 1] > 0xDBFF)) std::abort();
  }

  std::vector<char> out(cap + 1, '?');
  const size_t m = llt_eventlog_text(text.c_str(), out.data(), cap);
  if (m > cap || out[m] != 0 || !valid_utf8(reinterpret_cast<unsigned char *>(out.data()), m)) std::abort();
  if (m > 0 && (out[m - 1] == '\n' || out[m - 1] == '\r')) std::abort();
  return 0;
}

// The library formatter on arbitrary formats with a fixed argument list, as a
// hostile catalog would give it: never a crash, never a write past the stated
// size, and the bounded and allocated forms agree with each other.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <liblocal/output.h>

extern "C" int llt_format_compatible(const char *fmt, const char *reference);

namespace {
// The arguments every format gets: the shapes of the library's messages.
const char *kReference = "%s %d %s %u %ld";
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string f(reinterpret_cast<const char *>(data), size);
  const char *fmt = f.c_str();
  // Only formats that read what the caller passes: the catalog check decides.
  if (!llt_format_compatible(fmt, kReference)) return 0;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  for (size_t cap : {size_t{0}, size_t{1}, size_t{5}, size_t{64}, size_t{4096}}) {
    std::vector<char> buf(cap + 8, '\x55');
    int n = qzsnprintf(cap ? buf.data() : nullptr, cap, fmt, "t\xE6\x97\xA5xt", -7, "\xE3", 42u, 123456789L);
    for (size_t i = cap; i < cap + 8; ++i)
      if (buf[i] != '\x55') abort();
    if (cap && std::memchr(buf.data(), 0, cap) == nullptr) abort();
    if (n >= 0 && cap && static_cast<size_t>(n) < cap && std::strlen(buf.data()) != static_cast<size_t>(n)) abort();
  }
  char *a = qzasprintf(fmt, "t\xE6\x97\xA5xt", -7, "\xE3", 42u, 123456789L);
  if (a) {
    if (std::strlen(a) >= std::strlen(fmt) + 12288) abort();
    std::free(a);
  }
#pragma GCC diagnostic pop
  utf8_ttystrlen(fmt);
  return 0;
}

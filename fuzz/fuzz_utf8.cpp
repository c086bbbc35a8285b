// UTF-8 conversions on arbitrary bytes: never a crash, never a write past the
// stated size, and the single-sequence decoder agrees with the length count.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <liblocal/utf8.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string s(reinterpret_cast<const char *>(data), size);
  const char *t = s.c_str();  // stops at the first NUL, as callers would
  const size_t len = std::strlen(t);

  for (size_t cap : {size_t{0}, size_t{1}, size_t{2}, size_t{7}, len * 3 + 4}) {
    std::vector<qzwchar_t> w(cap + 1, 0xBEEF);
    size_t n = utf8_mbstowcs(cap ? w.data() : nullptr, t, cap);
    if (cap && (n >= cap || w[n] != 0)) abort();
    if (w[cap] != 0xBEEF) abort();
    std::vector<char> back(cap * 3 + 2, '\x55');
    size_t m = utf8_wcstombs(back.data(), cap ? w.data() : nullptr, cap * 3 + 1);
    if (m > cap * 3 || back[cap * 3 + 1] != '\x55') abort();
    std::vector<char> a(cap + 1, '\x55');
    size_t k = ansi_mbs(a.data(), t, cap);
    if ((cap && k >= cap) || a[cap] != '\x55') abort();
    k = utf8_mbs(a.data(), t, cap);
    if ((cap && k >= cap) || a[cap] != '\x55') abort();
  }
  int chars = utf8_mbslen(t);
  int count = 0;
  const char *p = t;
  while (*p) {
    int l = utf8_mblen(p, std::strlen(p));
    if (l <= 0) {
      count = -1;
      break;
    }
    p += l;
    ++count;
  }
  if (count != chars) abort();
  return 0;
}

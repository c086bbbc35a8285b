// gather_msg_ids and strip_msg_ids on arbitrary texts: they never grow the
// text; the comparisons and the decoder read them safely, and every routine
// of qzstrcmp this processor can run gives the same answer.
#include <liblocal/msgtag.h>

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

extern "C" int llt_qzstrcmp_variant(int which, const char *a, const char *b);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::vector<char> a(data, data + size), b(data, data + size);
  a.push_back('\0');
  b.push_back('\0');
  const size_t len = std::strlen(a.data());
  strip_msg_ids(a.data());
  gather_msg_ids(b.data());
  if (std::strlen(a.data()) > len || std::strlen(b.data()) > len) std::abort();
  // (Removing a tag can join its neighbours into a new one, so no stronger
  // property than the length holds for arbitrary input.)
  const int order = qzstrcmp(a.data(), b.data());
  for (int which = 0; which < 2; ++which) {
    const int r = llt_qzstrcmp_variant(which, a.data(), b.data());
    if (r != INT_MIN && r != order) std::abort();
  }
  int x, y;
  for (const char *p = b.data(); (p = strmsg(p)) != nullptr; ++p) extract_msg_suffix(p + 2, &x, &y);
  qzstricmp(a.data(), b.data());
  qzstrncmp(a.data(), b.data(), size % 17);
  from_base32(a.data());
  return 0;
}

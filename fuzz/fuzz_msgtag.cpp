// gather_msg_ids and strip_msg_ids on arbitrary texts: they never grow the
// text; the comparisons and the decoder read them safely.
#include <liblocal/msgtag.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

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
  qzstrcmp(a.data(), b.data());
  int x, y;
  for (const char *p = b.data(); (p = strmsg(p)) != nullptr; ++p) extract_msg_suffix(p + 2, &x, &y);
  qzstricmp(a.data(), b.data());
  qzstrncmp(a.data(), b.data(), size % 17);
  from_base32(a.data());
  return 0;
}

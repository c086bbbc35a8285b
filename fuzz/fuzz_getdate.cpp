// Date expressions on arbitrary bytes: a clear failure or a time in range,
// and every accepted time is written in a form that reads back to itself.
#include <cstdint>
#include <cstdlib>
#include <string>

#include <liblocal/memory.h>

#include <liblocal/getdate.h>

namespace {
int64_t V(qz_time64_t t) { return static_cast<int64_t>((static_cast<uint64_t>(static_cast<uint32_t>(t.high)) << 32) | t.low); }
qz_time64_t T(int64_t v) {
  qz_time64_t t;
  t.low = static_cast<uint32_t>(static_cast<uint64_t>(v));
  t.high = static_cast<int32_t>(static_cast<uint64_t>(v) >> 32);
  return t;
}
}  // namespace

// The parser is compiled into this target (for coverage); its data areas
// come from the library's allocator.
namespace ll {
void *area_alloc(size_t size) noexcept { return xmalloc(size); }
}  // namespace ll

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  setenv("TZ", "EST5EDT,M3.2.0,M11.1.0", 1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string s(reinterpret_cast<const char *>(data), size);
  const char *text = s.c_str();
  const qz_time64_t base = T(1720021600);  // a summer afternoon
  qz_time64_t t = T(-777);
  if (bsw_getdate(text, base, &t) == 0) {
    int64_t v = V(t);
    if (!qz_is_forever_time(t) && (v < 0 || v > 32535215999LL)) abort();
    char back[64];
    bsw_putdate(t, back, sizeof back);
    qz_time64_t again;
    if (bsw_getdate(back, base, &again) != 0 || V(again) != v) abort();
  } else if (V(t) != -777) {
    abort();  // a failure leaves the result alone
  }
  if (bsw_getrecurringdate(text, base, &t) == 0 && V(t) <= V(base)) abort();
  return 0;
}

// dcmprss on arbitrary code streams, into an output buffer of exactly
// dst_len bytes; the first two bytes choose dst_len. A second call on the
// same thread follows, as the chunk buffer outlives a call.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include <liblocal/codec.h>

// lzw.cpp is compiled into this target (for coverage); its data area comes
// from the library, its allocator from here.
namespace ll {
void *area_alloc(size_t size) noexcept {
  void *p;
  while (!(p = std::calloc(1, size))) {
  }
  return p;
}
}  // namespace ll

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  const int dst_len = (data[0] | data[1] << 8) % 40000;
  std::vector<uint8_t> src(data + 2, data + size);
  std::vector<uint8_t> dst((size_t)dst_len + 1);
  const int n = dcmprss(src.data(), (int)src.size(), dst.data(), dst_len);
  if (n < 0 || n > dst_len + (int)src.size() + 16) std::abort();
  std::vector<uint8_t> big(1 << 16);
  dcmprss(src.data(), (int)src.size(), big.data(), (int)big.size());
  return 0;
}

// cv_decompress on arbitrary blocks, into an output buffer of exactly
// dst_len bytes (so that any write past it is caught). The first two bytes
// choose dst_len: below 288 (no limit test between groups) or above.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <liblocal/codec.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  const unsigned sel = data[0] | (unsigned)data[1] << 8;
  const uint32_t dst_len = sel & 0x8000 ? 288 + (sel & 0x7FFF) : sel % 288;
  std::vector<uint8_t> src(data + 2, data + size);  // exact size: over-reads are caught too
  std::vector<uint8_t> dst(dst_len ? dst_len : 1);
  const int n = cv_decompress(src.data(), (uint32_t)src.size(), dst_len ? dst.data() : nullptr, dst_len);
  if (n > (int)dst_len) std::abort();
  return 0;
}

// cv_compress then cv_decompress gives back the input; a compressed block is
// never longer than its source.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <liblocal/codec.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::vector<uint8_t> src(data, data + size);
  std::vector<uint8_t> z(size + 35);
  const int n = cv_compress(src.data(), z.data(), (uint32_t)size, (uint32_t)z.size());
  if (n < 0) return 0;
  if ((size_t)n > size) std::abort();
  std::vector<uint8_t> back(size + 288);
  z.resize((size_t)n);
  const int m = cv_decompress(z.data(), (uint32_t)n, back.data(), (uint32_t)back.size());
  if (m != (int)size || std::memcmp(back.data(), src.data(), size) != 0) std::abort();
  return 0;
}

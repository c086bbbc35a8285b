// unquotegets and quotegets with every output size: nothing is written past
// the size, and escaped texts come back.
#include <liblocal/quote.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  const size_t out_size = data[0];
  std::vector<char> src(data + 1, data + size);
  src.push_back('\0');
  // Exactly out_size bytes, so the sanitizer sees any write past them.
  std::vector<char> out(out_size ? out_size : 1);
  unquotegets(out_size ? out.data() : nullptr, src.data(), out_size);
  unquotegets(out.data(), src.data(), out_size);
  if (out_size && std::strlen(out.data()) >= out_size) std::abort();
  quotegets(out.data(), src.data(), out_size);
  if (out_size && std::strlen(out.data()) >= out_size) std::abort();
  // A text without backslashes survives quoting and unquoting.
  if (!std::strchr(src.data(), '\\')) {
    std::vector<char> q(std::strlen(src.data()) * 4 + 1), back(std::strlen(src.data()) + 1);
    quotegets(q.data(), src.data(), q.size());
    unquotegets(back.data(), q.data(), back.size());
    if (std::strcmp(back.data(), src.data()) != 0) std::abort();
  }
  return 0;
}

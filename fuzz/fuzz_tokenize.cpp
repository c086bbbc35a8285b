// tokenize in both modes, with and without a caller's delimiter set, and
// command_string on the words it gives back.
#include <liblocal/quote.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  const int flags = data[0];
  std::vector<char> text(data + 1, data + size);
  text.push_back('\0');
  const char *delims = (flags & 2) ? ",;\t" : nullptr;
  int n = 0;
  char **v = nullptr;
  if (tokenize(text.data(), &n, &v, delims, flags & 1) != nullptr) return 0;
  if (v[n] != nullptr) std::abort();
  for (int i = 0; i < n; ++i)
    if (v[i] < text.data() || v[i] >= text.data() + text.size()) std::abort();
  if (n > 0) {
    char *joined = command_string(v, flags & 4, nullptr, 0);
    if (!joined) std::abort();
    char small[16];
    command_string(v, flags & 4, small, sizeof small);
    std::free(joined);
  }
  std::free(v);
  return 0;
}

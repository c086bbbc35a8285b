// Descriptor-set operations on sets with any count field, driven by the
// input and checked against a plain model of the same rules: the count stays
// within 0..1024, nothing is written past the array, order is kept.
// Run with -close_fd_mask=2: a full set prints its warning on every refusal.
#include <liblocal/socket.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {
struct Guarded {
  qz_fd_set set;
  unsigned char guard[64];
};
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 4) return 0;
  static Guarded g;
  std::memset(g.guard, 0xA5, sizeof g.guard);
  int32_t count;
  std::memcpy(&count, data, 4);
  data += 4;
  size -= 4;
  // The initial entries: a few distinct values, then a fixed pattern.
  for (int i = 0; i < QZ_FD_SETSIZE; ++i) g.set.fd_array[i] = static_cast<qz_socket_t>(i % 7 == 3 ? 3 : 100 + i);
  g.set.fd_count = count;
  int n = count < 0 ? 0 : std::min(count, QZ_FD_SETSIZE);
  std::vector<qz_socket_t> model(g.set.fd_array, g.set.fd_array + n);
  for (size_t i = 0; i + 1 < size; i += 2) {
    qz_socket_t s = static_cast<qz_socket_t>(data[i + 1] % 16 == 0 ? 3 : 90 + data[i + 1]);
    switch (data[i] % 4) {
      case 0:
        QZ_FD_ZERO(&g.set);
        model.clear();
        break;
      case 1:
        QZ_FD_SET(s, &g.set);
        if (std::find(model.begin(), model.end(), s) == model.end() && model.size() < QZ_FD_SETSIZE) model.push_back(s);
        break;
      case 2: {
        QZ_FD_CLR(s, &g.set);
        auto it = std::find(model.begin(), model.end(), s);
        if (it != model.end()) model.erase(it);
        break;
      }
      default:
        if ((QZ_FD_ISSET(s, &g.set) != 0) != (std::find(model.begin(), model.end(), s) != model.end())) std::abort();
    }
    if (g.set.fd_count != static_cast<int32_t>(model.size())) {
      // Only an untouched invalid count may differ from the model.
      if (g.set.fd_count >= 0 && g.set.fd_count <= QZ_FD_SETSIZE) std::abort();
      continue;
    }
    if (!std::equal(model.begin(), model.end(), g.set.fd_array)) std::abort();
  }
  for (unsigned char c : g.guard)
    if (c != 0xA5) std::abort();
  return 0;
}

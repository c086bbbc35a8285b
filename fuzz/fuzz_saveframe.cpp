// The save server's frame reader on arbitrary bytes: headers, entries and
// blocks are read with their bounds, a block's data is decoded into a buffer
// of exactly the room the reader promises, and whatever passes the checks
// obeys them.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "llocal/proto.h"

using namespace llocal::proto;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static std::vector<unsigned char> room(kBlockRoom);
  size_t at = 0;
  while (size - at >= kHeader) {
    uint8_t type = 0;
    uint32_t len = 0;
    if (!parse_header(data + at, type, len)) break;
    if (len > kMaxPayload) std::abort();
    at += kHeader;
    if (len > size - at) break;
    const unsigned char *p = data + at;
    if (type == kEntry) {
      Entry e;
      if (get_entry(p, len, e) && (!valid_name(e.name) || e.name.size() > kMaxName)) std::abort();
    } else if (type == kBlock) {
      Block b;
      if (get_block(p, len, b)) {
        if (b.length > kMaxBlock || b.data_len > len) std::abort();
        open_block(b, room.data());
      }
    }
    at += len;
  }
  return 0;
}

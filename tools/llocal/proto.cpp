// The save protocol's frames and fields (see proto.h).
#include "proto.h"

#include <cstring>

#include <liblocal.h>

namespace llocal::proto {

namespace {
// Room the codec wants past the data (see pack.cpp).
constexpr uint32_t kSlack = 288 + 64;

void put32le(unsigned char *p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
}
}  // namespace

uint32_t cksum_of(const void *p, size_t n) {
  uint32_t s;
  init_posix_crc(&s);
  update_posix_crc(&s, p, static_cast<uint32_t>(n));
  final_posix_crc(&s, static_cast<uint32_t>(n), 0);
  return s;
}

void build(uint8_t type, const void *payload, size_t len, std::vector<unsigned char> &out) {
  out.resize(kHeader + len);
  out[0] = type;
  out[1] = out[2] = out[3] = 0;
  put32le(&out[4], static_cast<uint32_t>(len));
  if (len) std::memcpy(&out[kHeader], payload, len);
}

bool parse_header(const unsigned char h[kHeader], uint8_t &type, uint32_t &len) {
  type = h[0];
  if (type < kHello || type > kListed || h[1] || h[2] || h[3]) return false;
  len = uint32_t(h[4]) | uint32_t(h[5]) << 8 | uint32_t(h[6]) << 16 | uint32_t(h[7]) << 24;
  return len <= kMaxPayload;
}

bool Reader::bytes(void *out, size_t n) {
  if (!ok_ || n > n_) return ok_ = false;
  if (n) std::memcpy(out, p_, n);
  p_ += n;
  n_ -= n;
  return true;
}
bool Reader::u8(uint8_t &v) { return bytes(&v, 1); }
bool Reader::u32(uint32_t &v) {
  unsigned char b[4];
  if (!bytes(b, 4)) return false;
  v = uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 | uint32_t(b[3]) << 24;
  return true;
}
bool Reader::u64(uint64_t &v) {
  uint32_t lo, hi;
  if (!u32(lo) || !u32(hi)) return false;
  v = uint64_t(hi) << 32 | lo;
  return true;
}
const unsigned char *Reader::rest(size_t &n) {
  n = ok_ ? n_ : 0;
  const unsigned char *p = p_;
  p_ += n;
  n_ = 0;
  return p;
}

void Writer::u32(uint32_t v) {
  unsigned char b[4];
  put32le(b, v);
  bytes(b, 4);
}
void Writer::u64(uint64_t v) {
  u32(static_cast<uint32_t>(v));
  u32(static_cast<uint32_t>(v >> 32));
}
void Writer::bytes(const void *p, size_t n) {
  const unsigned char *c = static_cast<const unsigned char *>(p);
  b.insert(b.end(), c, c + n);
}

bool valid_name(const std::string &name) {
  if (name.empty() || name.size() > kMaxName || name[0] == '/') return false;
  size_t start = 0;
  for (;;) {
    size_t end = name.find('/', start);
    std::string c = name.substr(start, end == std::string::npos ? std::string::npos : end - start);
    if (c.empty() || c == "." || c == "..") return false;
    if (end == std::string::npos) break;
    start = end + 1;
  }
  for (size_t i = 0; i < name.size();) {
    unsigned char c = static_cast<unsigned char>(name[i]);
    if (c < 0x20 || c == 0x7f || c == '\\' || c == ':') return false;
    int len = c < 0x80 ? 1 : (c & 0xe0) == 0xc0 ? 2 : (c & 0xf0) == 0xe0 ? 3 : (c & 0xf8) == 0xf0 ? 4 : 0;
    if (len == 0 || i + len > name.size() || (len == 2 && c < 0xc2)) return false;
    uint32_t cp = len == 1 ? c : c & (0x3f >> (len - 1));
    for (int k = 1; k < len; ++k) {
      unsigned char d = static_cast<unsigned char>(name[i + k]);
      if ((d & 0xc0) != 0x80) return false;
      cp = cp << 6 | (d & 0x3f);
    }
    if ((len == 3 && (cp < 0x800 || (cp >= 0xd800 && cp <= 0xdfff))) || (len == 4 && (cp < 0x10000 || cp > 0x10ffff)))
      return false;
    i += len;
  }
  return true;
}

void put_entry(const Entry &e, Writer &w) {
  w.u8(e.kind);
  w.u32(e.mode);
  w.u64(static_cast<uint64_t>(e.mtime));
  w.u64(e.size);
  w.u32(static_cast<uint32_t>(e.name.size()));
  w.bytes(e.name.data(), e.name.size());
}

bool get_entry(const unsigned char *p, size_t n, Entry &e) {
  Reader r(p, n);
  uint64_t mtime = 0;
  uint32_t len = 0;
  if (!r.u8(e.kind) || !r.u32(e.mode) || !r.u64(mtime) || !r.u64(e.size) || !r.u32(len)) return false;
  if (e.kind != kFile && e.kind != kDir) return false;
  if (len > kMaxName) return false;
  e.mtime = static_cast<int64_t>(mtime);
  e.name.resize(len);
  if (!r.bytes(e.name.data(), len) || !r.done()) return false;
  if (e.kind == kDir && e.size != 0) return false;
  return valid_name(e.name);
}

bool get_block(const unsigned char *p, size_t n, Block &b) {
  Reader r(p, n);
  uint8_t stored = 0;
  if (!r.u32(b.length) || !r.u32(b.crc) || !r.u8(stored)) return false;
  b.data = r.rest(b.data_len);
  b.stored = stored == 1;
  if (stored > 1 || b.length == 0 || b.length > kMaxBlock) return false;
  // A stored block holds exactly its bytes; a compressed one never more.
  return b.stored ? b.data_len == b.length : (b.data_len > 0 && b.data_len <= b.length);
}

bool open_block(const Block &b, unsigned char *out) {
  if (b.stored) {
    std::memcpy(out, b.data, b.length);
  } else {
    int got = cv_decompress(b.data, static_cast<uint32_t>(b.data_len), out, kBlockRoom);
    if (got < 0 || static_cast<uint32_t>(got) != b.length) return false;
  }
  return cksum_of(out, b.length) == b.crc;
}

void make_block(const unsigned char *data, uint32_t n, Writer &w) {
  w.u32(n);
  w.u32(cksum_of(data, n));
  size_t at = w.b.size() + 1;
  w.b.resize(at + n + kSlack);
  int got = cv_compress(data, &w.b[at], n, n + kSlack);
  if (got > 0) {
    w.b[at - 1] = 0;
    w.b.resize(at + static_cast<size_t>(got));
  } else {
    w.b[at - 1] = 1;
    std::memcpy(&w.b[at], data, n);
    w.b.resize(at + n);
  }
}

}  // namespace llocal::proto

// Unique identifiers: creation, order, the checksummed text form and the
// growable array.
#include <liblocal/qzui.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

#include <liblocal/digest.h>
#include <liblocal/hostid.h>
#include <liblocal/memory.h>
#include <liblocal/qztime.h>
#include <liblocal/strutil.h>

namespace {

constexpr uint32_t kLoopback = 0x7F000001;

uint32_t be(uint32_t v) noexcept {
  unsigned char b[4] = {static_cast<unsigned char>(v >> 24), static_cast<unsigned char>(v >> 16),
                        static_cast<unsigned char>(v >> 8), static_cast<unsigned char>(v)};
  uint32_t r;
  std::memcpy(&r, b, 4);
  return r;
}
uint32_t host(uint32_t v) noexcept { return be(v); }  // the same swap both ways

uint32_t word(const qzui *id, int i) noexcept { return host(id->w[i]); }

// The counter: the first identifier of a process carries 1. Its 16 bits give
// 65536 values per second of creation time, so the stamp and the counter are
// taken together from one word that also counts the identifiers of that
// second: the one after the 65536th waits for the next second instead of
// repeating a value. The word holds the low 32 bits of the second, the last
// counter given and how many of that second came before the last one.
std::atomic<uint64_t> g_stamp{0};

constexpr uint64_t pack(uint32_t second, uint32_t counter, uint32_t before) noexcept {
  return uint64_t{second} << 32 | uint64_t{counter & 0xFFFF} << 16 | (before & 0xFFFF);
}

void next_stamp(qz_time64_t *t, uint32_t *count) noexcept {
  for (;;) {
    *t = qz_time(nullptr);
    uint64_t old = g_stamp.load(std::memory_order_relaxed);
    for (;;) {
      const uint32_t counter = static_cast<uint32_t>(old >> 16 & 0xFFFF) + 1;
      const uint32_t second = static_cast<uint32_t>(old >> 32);
      // Another thread read the clock later and has moved on: this one's
      // reading is stale, so it takes that second (a step of the clock
      // backwards further than that starts afresh).
      const int32_t ahead = static_cast<int32_t>(second - t->low);
      if (old != 0 && ahead > 0 && ahead <= 2) t->low = second;
      uint64_t next;
      if (second != t->low || old == 0) {
        next = pack(t->low, counter, 0);  // the first of a new second
      } else if ((old & 0xFFFF) == 0xFFFF) {
        break;  // 65536 made this second already
      } else {
        next = pack(t->low, counter, static_cast<uint32_t>(old & 0xFFFF) + 1);
      }
      if (g_stamp.compare_exchange_weak(old, next, std::memory_order_relaxed)) {
        *count = counter & 0xFFFF;
        return;
      }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}
// This host's address as stored in word 4; the loopback address until the
// host-identity layer gives a better one.
std::atomic<uint32_t> g_host_addr{be(kLoopback)};

uint32_t host_address() noexcept {
  uint32_t a = g_host_addr.load(std::memory_order_relaxed);
  if (a != be(kLoopback)) return a;
  unsigned char sa[16] = {};
  __qzmo_get_myaddress(reinterpret_cast<struct sockaddr *>(sa));
  uint16_t fam;
  std::memcpy(&fam, sa, 2);
  uint32_t got;
  std::memcpy(&got, sa + 4, 4);
  if (fam != 2 || got == 0) return a;
  g_host_addr.store(got, std::memory_order_relaxed);
  return got;
}

uint32_t id_crc(const qzui *id) noexcept {
  uint32_t s;
  init_posix_crc(&s);
  update_posix_crc(&s, id->b, 20);
  final_posix_crc(&s, 20, 0);
  return s;
}

const char kHex[] = "0123456789abcdef";

char *put_hex32(char *p, uint32_t v) noexcept {
  for (int i = 7; i >= 0; --i, v >>= 4) p[i] = kHex[v & 15];
  return p + 8;
}

int hex_digit(char c) noexcept {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Exactly 8 hexadecimal digits.
bool get_hex32(const char *p, uint32_t *out) noexcept {
  uint32_t v = 0;
  for (int i = 0; i < 8; ++i) {
    int d = hex_digit(p[i]);
    if (d < 0) return false;
    v = (v << 4) | static_cast<uint32_t>(d);
  }
  *out = v;
  return true;
}

bool short_form(uint32_t type, bool force) noexcept {
  switch (type) {
    case 0: case 1: case 0xFFFFFFFFu: return true;
    case 2: case 3: case 5: case 6: case 9: return !force;
    default: return false;
  }
}

bool is_space(char c) noexcept { return c == ' ' || (c >= '\t' && c <= '\r'); }
bool is_alnum(char c) noexcept {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

std::mutex g_ring_mu;
char g_ring[20][QZUI_TEXT_SIZE];
int g_ring_next = 0;

}  // namespace

extern "C" {

LL_API uint32_t qzui_create(qzui *id, uint32_t type, uint32_t priv) noexcept {
  if (!id) return 0;
  id->w[0] = be(type);
  id->w[1] = be(priv);
  if (type == 1) {
    id->w[2] = id->w[3] = id->w[4] = 0;
    return 0;
  }
  qz_time64_t t;
  uint32_t count;
  next_stamp(&t, &count);
  id->w[2] = be(t.low);
  id->w[3] = be((count << 16) | (static_cast<uint32_t>(t.high) & 0xFFFF));
  id->w[4] = host_address();
  return id->w[4];
}

LL_API void qzui_create_special(qzui *id, uint32_t priv) noexcept {
  if (!id) return;
  std::memset(id, 0, sizeof *id);
  id->w[0] = be(9);
  id->w[1] = be(priv);
}

LL_API void qzui_create_old(qzui *id, uint32_t type, uint32_t priv, uint32_t word3, uint32_t word2) noexcept {
  if (!id) return;
  id->w[0] = be(type);
  id->w[1] = be(priv);
  id->w[2] = be(word2);
  id->w[3] = be(word3);
  id->w[4] = be(kLoopback);
}

LL_API uint32_t qzui_get_idtype(const qzui *id) noexcept { return id ? word(id, 0) : 0; }

LL_API uint32_t qzui_get_private(const qzui *id) noexcept { return id ? word(id, 1) : 0; }

LL_API int qzui_cmp(const qzui *a, const qzui *b) noexcept {
  if (!a || !b) return a == b ? 0 : (a ? 1 : -1);
  uint32_t ta = word(a, 0), tb = word(b, 0);
  if (ta == 1 || tb == 1) {
    uint32_t pa = word(a, 1), pb = word(b, 1);
    return pa < pb ? -1 : (pa > pb ? 1 : 0);
  }
  size_t n = (ta == 2 || ta == 3 || tb == 2 || tb == 3) ? 16 : 20;
  for (size_t i = 0; i < n; ++i)
    if (a->b[i] != b->b[i]) return static_cast<int>(a->b[i]) - static_cast<int>(b->b[i]);
  return 0;
}

LL_API int qzui_is_zeroid(const qzui *id) noexcept { return id && qzui_cmp(id, &Zero_qzui) == 0 ? 1 : 0; }

LL_API int qzui_is_notid(const qzui *id) noexcept { return id && qzui_cmp(id, &Not_qzui) == 0 ? 1 : 0; }

LL_API char *qzui_to_string(const qzui *id, char *buf, int force) noexcept {
  if (!buf) {
    std::lock_guard<std::mutex> lock(g_ring_mu);
    g_ring_next = (g_ring_next + 1) % 20;
    buf = g_ring[g_ring_next];
  }
  qzui zero{};
  if (!id) id = &zero;
  uint32_t type = word(id, 0);
  if (short_form(type, force != 0)) {
    // Decimal private value.
    char tmp[12];
    int n = 0;
    uint32_t v = word(id, 1);
    do {
      tmp[n++] = static_cast<char>('0' + v % 10);
      v /= 10;
    } while (v);
    for (int i = 0; i < n; ++i) buf[i] = tmp[n - 1 - i];
    buf[n] = 0;
    return buf;
  }
  char *p = put_hex32(buf, id_crc(id));
  for (int i = 0; i < 5; ++i) {
    *p++ = '-';
    p = put_hex32(p, word(id, i));
  }
  *p = 0;
  return buf;
}

LL_API int string_to_qzui(const char *text, qzui *id, char **end) noexcept {
  if (!text) return -1;
  const char *p = text;
  while (is_space(*p)) ++p;
  if (end) *end = const_cast<char *>(p);
  // The long form: six groups of exactly eight hexadecimal digits.
  qzui got;
  uint32_t crc = 0;
  bool long_ok = get_hex32(p, &crc);
  for (int i = 0; long_ok && i < 5; ++i) {
    uint32_t w;
    long_ok = p[9 * i + 8] == '-' && get_hex32(p + 9 * i + 9, &w);
    got.w[i] = be(w);
  }
  if (long_ok && id_crc(&got) == crc) {
    if (id) *id = got;
    if (end) *end = const_cast<char *>(p + 53);
    return static_cast<int>(word(&got, 0));
  }
  // A whole decimal token.
  if (*p < '0' || *p > '9') return -1;
  const char *q = p;
  while (*q >= '0' && *q <= '9') ++q;
  if (is_alnum(*q) || *q == '-' || q - p > 20) return -1;
  int err = 0;
  char *stop = nullptr;
  uint64_t v = qz_strtoui64(p, &stop, 10, &err);
  if (err || stop != q || v > 0xFFFFFFFFu || !id) return -1;
  std::memset(id, 0, sizeof *id);
  id->w[0] = be(1);
  id->w[1] = be(static_cast<uint32_t>(v));
  if (end) *end = const_cast<char *>(q);
  return 1;
}

LL_API qz_ids *alloc_ids(void) noexcept {
  auto *a = static_cast<qz_ids *>(xmalloc(sizeof(qz_ids)));
  a->capacity = 5000;
  a->count = 0;
  a->ids = static_cast<qzui *>(xmalloc(sizeof(qzui) * 5000));
  return a;
}

LL_API int add_id(qz_ids *ids, const qzui *id) noexcept {
  if (!ids || !id || ids->count < 0 || ids->capacity < 0 || ids->count > ids->capacity) return -1;
  if (ids->count == ids->capacity) {
    int64_t cap = static_cast<int64_t>(ids->capacity) * 14 / 10;
    if (cap <= ids->capacity) cap = ids->capacity + 1;
    if (cap > 0x7FFFFFFF / static_cast<int64_t>(sizeof(qzui))) return -1;
    auto *grown = static_cast<qzui *>(xmalloc(sizeof(qzui) * static_cast<size_t>(cap)));
    if (ids->count) std::memcpy(grown, ids->ids, sizeof(qzui) * static_cast<size_t>(ids->count));
    std::free(ids->ids);
    ids->ids = grown;
    ids->capacity = static_cast<int32_t>(cap);
  }
  ids->ids[ids->count] = *id;
  return ++ids->count;
}

LL_API void free_ids(qz_ids *ids) noexcept {
  if (!ids) return;
  std::free(ids->ids);
  std::free(ids);
}

}  // extern "C"

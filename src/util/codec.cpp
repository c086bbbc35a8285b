// Block codec: a 4096-slot hash-table dictionary coder (512 sets of 8 slots,
// copy items of 3..18 bytes addressed by table index, 16-item groups under a
// 16-bit control word stored low byte first).
//
// The encoder and the decoder keep the same table up to the last copy item,
// so every insertion below is part of the format: where it happens, in which
// order, and which slot the shared rotating cycle picks. Limits are tested
// only between bursts (16 items while enough input remains, otherwise 1),
// which also decides when a block is refused; keep the burst structure.
#include <bit>
#include <cstdint>
#include <cstring>

#include <liblocal/codec.h>

namespace {

using u8 = uint8_t;
using u32 = uint32_t;
using u64 = uint64_t;

constexpr u32 kSlots = 4096;
constexpr u32 kMaxCopy = 18;
constexpr u32 kBurst = 16;
constexpr u32 kBurstOut = kBurst * kMaxCopy;  // 288: most a burst can produce
constexpr u32 kBurstIn = kBurst * 2;          // 32: most a burst can consume

// Every slot starts out naming this string; a copy from a slot never written
// copies from it. The padding lets the fast paths read whole words from it;
// only the first 18 bytes are ever part of a match or a copy.
alignas(64) constexpr u8 kStart[64] = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i',
                                       'j', 'k', 'l', 'm', 'n', 'o', 'p', 'q', 'r'};

inline u32 hash_set(const u8 *p) {
  const u32 x = ((((u32)p[0] << 4) ^ p[1]) << 4) ^ p[2];
  return ((40543u * x) >> 4) & 0x1FF;
}

inline u64 load64(const u8 *p) {
  u64 v;
  std::memcpy(&v, p, 8);
  return v;
}

inline void copy16(u8 *d, const u8 *s) {
  u64 a, b;
  std::memcpy(&a, s, 8);
  std::memcpy(&b, s + 8, 8);
  std::memcpy(d, &a, 8);
  std::memcpy(d + 8, &b, 8);
}

// Slots hold addresses as integers: stores into the table then cannot alias
// the coder's own pointers, which stay in registers.
struct Table {
  uintptr_t slot[kSlots];
  u32 cycle = 0;

  Table() {
    for (auto &s : slot) s = (uintptr_t)kStart;
  }
  const u8 *at(u32 i) const { return (const u8 *)slot[i]; }
  void set(u32 i, const u8 *pos) { slot[i] = (uintptr_t)pos; }
  void insert(u32 set, const u8 *pos) {
    slot[set * 8 + cycle] = (uintptr_t)pos;
    cycle = (cycle + 1) & 7;
  }
};

// Number of equal leading bytes of p and q, at most 18. Both may be read 18
// bytes far (q is an earlier source position or the padded start string).
inline u32 match_len(const u8 *p, const u8 *q, u64 p0, u64 p1) {
  if constexpr (std::endian::native == std::endian::little) {
    u64 d = load64(q) ^ p0;
    if (d) return (u32)std::countr_zero(d) >> 3;
    d = load64(q + 8) ^ p1;
    if (d) return 8 + ((u32)std::countr_zero(d) >> 3);
    if (q[16] != p[16]) return 16;
    return q[17] != p[17] ? 17 : 18;
  } else {
    u32 n = 0;
    while (n < kMaxCopy && p[n] == q[n]) ++n;
    return n;
  }
}

// ---------------------------------------------------------------- encoder

struct Encoder {
  Table t;
  const u8 *p;
  u8 *op;
  u32 acc = 0xFFFF0000u;
  // Literal insertions wait two positions, until the three bytes they hash
  // are the ones the decoder will have produced.
  static constexpr u32 kNone = 0xFFFFFFFFu;
  u32 pend1 = kNone, pend2 = kNone;

  // One item at p (at least 18 source bytes remain).
  inline void item() {
    const u32 set = hash_set(p);
    const uintptr_t *s = &t.slot[set * 8];
    const u64 p0 = load64(p), p1 = load64(p + 8);
    u32 best = 0, bslot = 0;
    for (u32 i = 0; i < 8; ++i) {
      const u8 *q = (const u8 *)s[i];
      if (q[best] != p[best]) continue;  // cannot be strictly longer
      const u32 n = match_len(p, q, p0, p1);
      if (n > best) {
        best = n;
        bslot = i;
        if (best == kMaxCopy) break;
      }
    }
    if (best < 3) {
      *op++ = *p;
      acc &= ~0x10000u;
      if (pend2 != kNone) t.insert(pend2, p - 2);
      pend2 = pend1;
      pend1 = set;
      ++p;
    } else {
      const u32 index = set * 8 + bslot;
      op[0] = (u8)(((index >> 8) << 4) | (best - 3));
      op[1] = (u8)index;
      op += 2;
      if (pend1 != kNone) {
        if (pend2 != kNone) {
          t.insert(pend2, p - 2);
          pend2 = kNone;
        }
        t.insert(pend1, p - 1);
        pend1 = kNone;
      }
      t.insert(set, p);
      p += best;
    }
    acc >>= 1;
  }
};

int encode(const u8 *src, u8 *dst, u32 src_len, u32 dst_len) {
  if ((u64)src_len <= 34 || (u64)dst_len <= (u64)src_len + 34) return -1;
  // Results are signed 32-bit: larger blocks are refused like any other.
  if (!src || !dst || src_len > 0x7FFFFFFFu) return -1;
  Encoder e;
  const u8 *const end = src + src_len;
  const u8 *const near_end = end - kMaxCopy;
  const bool bursts = src_len >= kBurstOut;
  const u8 *const fast_end = bursts ? end - kBurstOut : src;
  const u8 *const out_limit = dst + src_len;
  e.p = src;
  u8 *ctrl = dst;
  e.op = dst + 2;
  for (;;) {
    if (e.op > out_limit) return -1;
    if (bursts && e.p <= fast_end) {
      for (u32 i = 0; i < kBurst; ++i) e.item();
    } else if (e.p > near_end) {
      // The last 17 bytes or fewer: literals only, nothing hashed any more.
      if (e.p == end) break;
      *e.op++ = *e.p++;
      e.acc = (e.acc & ~0x10000u) >> 1;
    } else {
      e.item();
    }
    if (e.acc < 0x10000u) {
      ctrl[0] = (u8)e.acc;
      ctrl[1] = (u8)(e.acc >> 8);
      ctrl = e.op;
      e.op += 2;
      e.acc = 0xFFFF0000u;
    }
  }
  if (e.op == ctrl + 2) {
    e.op = ctrl;  // no item after the last control word: drop it
  } else {
    while (e.acc >= 0x10000u) e.acc >>= 1;
    ctrl[0] = (u8)e.acc;
    ctrl[1] = (u8)(e.acc >> 8);
  }
  return (int)(e.op - dst);
}

// ---------------------------------------------------------------- decoder

struct Decoder {
  Table t;
  const u8 *ip;
  u8 *op;
  u32 pending = 0;  // literals not yet inserted (0..2 between items)

  inline void literal() {
    *op++ = *ip++;
    if (++pending == 3) {
      t.insert(hash_set(op - 3), op - 3);
      pending = 2;
    }
  }

  inline void after_copy(u8 *start, u32 index) {
    if (pending) {
      t.insert(hash_set(start - pending), start - pending);
      if (pending == 2) t.insert(hash_set(start - 1), start - 1);
      pending = 0;
    }
    t.set((index & ~7u) + t.cycle, start);
    t.cycle = (t.cycle + 1) & 7;
  }

  // A run of k literals (k <= 16) moved at once, then inserted in order; no
  // lookup happens between literals, so the table ends up the same. Needs 16
  // bytes of room at op; ip may be read 16 bytes far when that is in input.
  inline void literals(u32 k, const u8 *iend) {
    if (iend - ip >= 16)
      copy16(op, ip);
    else
      std::memcpy(op, ip, k);
    ip += k;
    // The literal at op + j completes a triple to insert once three are pending.
    for (u32 j = pending >= 2 ? 0 : 2 - pending; j < k; ++j) t.insert(hash_set(op + j - 2), op + j - 2);
    pending = pending + k > 2 ? 2 : pending + k;
    op += k;
  }

  // Copy item; Wide: at least 32 bytes of room after op beyond the item, so
  // whole 16-byte words may be moved.
  template <bool Wide> inline void copy() {
    const u32 b0 = ip[0], b1 = ip[1];
    ip += 2;
    const u32 index = ((b0 >> 4) << 8) | b1;
    const u32 len = (b0 & 15) + 3;
    const u8 *s = t.at(index);
    u8 *d = op;
    // s is either an earlier output position or the start string; only in
    // the first case can the two ranges overlap (then s < d).
    const uintptr_t dist = (uintptr_t)d - (uintptr_t)s;
    if (Wide && (dist >= 16 || dist >= len)) {
      // Always 32 bytes: what lands past the item is rewritten later.
      copy16(d, s);
      copy16(d + 16, s + 16);
    } else {
      for (u32 i = 0; i < len; ++i) d[i] = s[i];  // forward: overlap repeats bytes
    }
    op = d + len;
    after_copy(d, index);
  }
};

int decode(const u8 *src, u32 src_len, u8 *dst, u32 dst_len) {
  if (src_len == 0) return 0;
  if (!src || !dst) return -1;
  Decoder dc;
  dc.ip = src;
  dc.op = dst;
  const u8 *const iend = src + src_len;
  const bool bursts = src_len >= kBurstIn;
  const u8 *const fast_end = bursts ? iend - kBurstIn : src;
  // Between bursts the output may not pass dst_len - 288 (unsigned: below
  // 288 the test is off). A burst that starts within that limit cannot write
  // past dst_len; with the test off every item checks its own room instead.
  const u32 limit = dst_len - kBurstOut;
  const bool checked = dst_len >= kBurstOut;
  u8 *const dst_end = dst + dst_len;
  u32 ctrl = 1;
  while (dc.ip < iend) {
    if (ctrl == 1) {
      if (iend - dc.ip <= 2) return -1;  // control word at the very end
      ctrl = 0x10000u | dc.ip[0] | ((u32)dc.ip[1] << 8);
      dc.ip += 2;
    }
    if (bursts && dc.ip <= fast_end) {
      if (checked) {
        if ((size_t)(dst_end - dc.op) >= kBurstOut + 32) {
          // The sentinel bit 16 - i ends the count of literals at the burst end.
          for (u32 i = 0; i < kBurst;) {
            const u32 k = (u32)std::countr_zero(ctrl);
            if (k) {
              dc.literals(k, iend);
              ctrl >>= k;
              if ((i += k) == kBurst) break;
            }
            dc.copy<true>();
            ctrl >>= 1;
            ++i;
          }
        } else {
          for (u32 i = 0; i < kBurst; ++i, ctrl >>= 1) {
            if (ctrl & 1)
              dc.copy<false>();
            else
              dc.literal();
          }
        }
      } else {
        for (u32 i = 0; i < kBurst; ++i, ctrl >>= 1) {
          if (ctrl & 1) {
            if ((size_t)(dst_end - dc.op) < 3 + (dc.ip[0] & 15u)) return -1;
            dc.copy<false>();
          } else {
            if (dc.op == dst_end) return -1;
            dc.literal();
          }
        }
      }
    } else {
      const bool is_copy = ctrl & 1;
      ctrl >>= 1;
      if (is_copy) {
        if (iend - dc.ip < 2) return -1;  // input ends inside the item
        if (!checked && (size_t)(dst_end - dc.op) < 3 + (dc.ip[0] & 15u)) return -1;
        dc.copy<false>();
      } else {
        if (!checked && dc.op == dst_end) return -1;
        dc.literal();
      }
    }
    if ((u32)(dc.op - dst) > limit) return -1;
  }
  if (dc.ip != iend || dc.op - dst > 0x7FFFFFFF) return -1;
  return (int)(dc.op - dst);
}

}  // namespace

extern "C" {

LL_API int cv_compress(const void *src, void *dst, uint32_t src_len, uint32_t dst_len) noexcept {
  return encode(static_cast<const u8 *>(src), static_cast<u8 *>(dst), src_len, dst_len);
}

LL_API int cv_decompress(const void *src, uint32_t src_len, void *dst, uint32_t dst_len) noexcept {
  return decode(static_cast<const u8 *>(src), src_len, static_cast<u8 *>(dst), dst_len);
}

}  // extern "C"

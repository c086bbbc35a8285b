// Decoder of the compress tool's LZW code stream: 12-bit codes at most, block
// mode (code 256 clears the dictionary), no file header.
//
// Codes arrive in chunks of as many bytes as the current code width in bits;
// a change of width or a clear starts a fresh chunk. The dictionary is the
// usual prefix-code / suffix-byte pair per code, kept in the calling thread's
// data area together with the chunk buffer, which outlives the call.
//
// Speed: every string the decoder writes in full is also remembered as a
// (position, length) pair in the output. A dictionary entry whose string is
// known to sit in the output that way ("placed") is copied from there instead
// of being walked through the prefix chain; anything else (corrupt streams,
// codes past the next free one, the output limit) takes the plain chain walk.
// Both give the same bytes: an entry is placed only when its chain strictly
// descends through placed entries, and it stays valid until the next clear,
// after which entries are rewritten in code order before they can be named.
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "frame/areas.h"
#include <liblocal/codec.h>

namespace {

using u8 = uint8_t;
using u16 = uint16_t;
using u32 = uint32_t;

constexpr int kClear = 256;
constexpr int kFirst = 257;
constexpr int kCodes = 4096;  // 12-bit codes
// No string of a sound dictionary is longer than the number of codes, plus
// one for a code not yet defined; a longer chain is a loop in a corrupt one.
constexpr int kStackMax = kCodes + 8;

struct LzwState {
  u16 prefix[kCodes];
  u8 suffix[kCodes];
  u8 placed[kCodes];   // string of the code sits at pos/len in this call's output
  u32 pos[kCodes];
  u16 len[kCodes];
  u8 stack[kStackMax];
  // The current chunk; it survives the call (see docs/codec.md).
  u8 buf[16];
  int offset;  // bit offset of the next code in buf
  int size;    // codes are taken while offset < size
};

inline u32 load32(const u8 *p) {
  return (u32)p[0] | ((u32)p[1] << 8) | ((u32)p[2] << 16) | ((u32)p[3] << 24);
}

inline void copy16(u8 *d, const u8 *s) {
  uint64_t a, b;
  std::memcpy(&a, s, 8);
  std::memcpy(&b, s + 8, 8);
  std::memcpy(d, &a, 8);
  std::memcpy(d + 8, &b, 8);
}

struct Reader {
  LzwState &st;
  const u8 *in;
  const u8 *iend;
  int n_bits = 9;
  int maxcode = 511;
  bool clear_pending = false;

  // Next code, or -1 at the end of the input.
  inline int get(int free_ent) {
    if (clear_pending || st.offset >= st.size || free_ent > maxcode) {
      if (free_ent > maxcode) {
        ++n_bits;
        maxcode = n_bits == 12 ? kCodes : (1 << n_bits) - 1;
      }
      if (clear_pending) {
        n_bits = 9;
        maxcode = 511;
        clear_pending = false;
      }
      const int n = (int)std::min<ptrdiff_t>(n_bits, iend - in);
      if (n <= 0) {
        st.size = 0;
        return -1;
      }
      std::memcpy(st.buf, in, (size_t)n);
      if (n < 12) std::memset(st.buf + n, 0, sizeof st.buf - (size_t)n);
      in += n;
      st.offset = 0;
      st.size = n * 8 - (n_bits - 1);
    }
    const u32 v = load32(st.buf + (st.offset >> 3)) >> (st.offset & 7);
    st.offset += n_bits;
    return (int)(v & ((1u << n_bits) - 1));
  }
};

int64_t decode(const u8 *src, int src_len, u8 *dst, int dst_len) {
  LzwState &st = *ll::thread_area<LzwState>();
  Reader r{st, src, src ? src + std::max(src_len, 0) : src};
  int free_ent = kFirst;
  int code = r.get(free_ent);
  if (dst_len < 1 || code < 0 || !dst) return 0;

  // A fresh dictionary: single bytes, and nothing left over from earlier
  // calls that a corrupt stream could reach.
  for (int i = 0; i < 256; ++i) {
    st.prefix[i] = 0;
    st.suffix[i] = (u8)i;
  }
  std::memset(st.prefix + 256, 0, sizeof st.prefix - 256 * sizeof st.prefix[0]);
  std::memset(st.suffix + 256, 0, sizeof st.suffix - 256);
  st.placed[256] = 0;

  u8 *const dst_end = dst + dst_len;
  int oldcode = code;
  u8 finchar = (u8)code;
  dst[0] = finchar;
  u8 *op = dst + 1;
  // The previous string: where it was written, and whether it is exactly the
  // dictionary string of oldcode with that string's chain stable.
  u32 prev_pos = 0, prev_len = 1;
  bool prev_exact = code < 256;

  code = r.get(free_ent);
  if (code < 0) return 1;
  int64_t count;
  while (code >= 0) {
    if (code == kClear) {
      // (The prefixes of 0..255 are never read: nothing to zero there.)
      r.clear_pending = true;
      free_ent = 256;
      // The old string's chain is rewritten from here on: the entry made for
      // the next code (on 256, never looked up as such) is not placed.
      prev_exact = false;
      if ((code = r.get(free_ent)) < 0) break;
    }
    const int incode = code;
    const u32 cur_pos = (u32)(op - dst);
    const size_t room = (size_t)(dst_end - op);
    const u8 *from = nullptr;  // string already in the output, or null
    u32 len = 0;
    bool tail = false;  // string = from[0..len) followed by the old first byte
    if (code < 256) {
      // single byte: below
    } else if (code < free_ent) {
      if (st.placed[code]) {
        from = dst + st.pos[code];
        len = st.len[code];
      }
    } else if (oldcode < 256 || (oldcode < free_ent && st.placed[oldcode])) {
      tail = true;
      if (oldcode < 256) {
        from = &st.suffix[oldcode];
        len = 1;
      } else {
        from = dst + st.pos[oldcode];
        len = st.len[oldcode];
      }
    }

    u32 total;
    bool exact;  // the string written is the dictionary string of incode
    if (code < 256) {
      total = 1;
      exact = true;
      if (room < 1) goto truncated;
      *op = finchar = (u8)code;
    } else if (from) {
      total = len + tail;
      if (room < total) goto truncated;
      if (room >= (size_t)total + 16 && from != &st.suffix[oldcode]) {
        for (u32 i = 0; i < len; i += 16) copy16(op + i, from + i);
      } else {
        std::memcpy(op, from, len);
      }
      if (tail) op[len] = finchar;
      finchar = op[0];
      exact = !tail;
    } else {
      // The chain walk, onto the bounded stack.
      int sp = 0, c = code;
      if (c >= free_ent) {
        st.stack[sp++] = finchar;
        c = oldcode;
      }
      while (c >= 256) {
        if (sp >= kStackMax - 1) return op - dst;  // a loop: the stream is corrupt
        st.stack[sp++] = st.suffix[c];
        c = st.prefix[c];
      }
      st.stack[sp++] = finchar = st.suffix[c];
      total = (u32)sp;
      exact = false;
      if (room < total) {
        for (size_t i = 0; i < room; ++i) op[i] = st.stack[sp - 1 - (int)i];
        op = dst_end;
        goto truncated_written;
      }
      for (u32 i = 0; i < total; ++i) op[i] = st.stack[sp - 1 - (int)i];
    }
    op += total;

    if (free_ent < kCodes) {
      st.prefix[free_ent] = (u16)oldcode;
      st.suffix[free_ent] = finchar;
      // oldcode's string, then this string's first byte: both in place.
      st.placed[free_ent] = prev_exact;
      st.pos[free_ent] = prev_pos;
      st.len[free_ent] = (u16)(prev_len + 1);
      if (incode == free_ent) exact = prev_exact;  // defined just now, as written
      ++free_ent;
    } else if (incode >= free_ent) {
      exact = false;
    }
    prev_exact = exact;
    prev_pos = cur_pos;
    prev_len = total;
    oldcode = incode;
    code = r.get(free_ent);
  }
  return op - dst;

truncated:
  // The string does not fit: write what fits, and from here on count one
  // per further code, as the count has always shown truncation.
  {
    const size_t room = (size_t)(dst_end - op);
    if (room) {
      // Only reached by the fast cases; redo the string through the chain.
      int sp = 0, c = code;
      if (c >= free_ent) {
        st.stack[sp++] = finchar;
        c = oldcode;
      }
      while (c >= 256 && sp < kStackMax - 1) {
        st.stack[sp++] = st.suffix[c];
        c = st.prefix[c];
      }
      st.stack[sp++] = st.suffix[c];
      for (size_t i = 0; i < room && (int)i < sp; ++i) op[i] = st.stack[sp - 1 - (int)i];
    }
    op = dst_end;
  }
truncated_written:
  count = (int64_t)dst_len + 1;
  if (free_ent < kCodes) ++free_ent;
  for (;;) {
    code = r.get(free_ent);
    if (code < 0) break;
    if (code == kClear) {
      r.clear_pending = true;
      free_ent = 256;
      if ((code = r.get(free_ent)) < 0) break;
    }
    ++count;
    if (free_ent < kCodes) ++free_ent;
  }
  return count;
}

}  // namespace

extern "C" {

LL_API int dcmprss(const void *src, int src_len, void *dst, int dst_len) noexcept {
  const int64_t n = decode(static_cast<const u8 *>(src), src_len, static_cast<u8 *>(dst), dst_len);
  return n > 0x7FFFFFFF ? 0x7FFFFFFF : (int)n;
}

}  // extern "C"

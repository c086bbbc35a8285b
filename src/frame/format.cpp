// The library formatter.
//
// Two passes when a format numbers its arguments: the first learns the kind of
// every argument (so they can be fetched from the va_list in order), the
// second formats. Formats without numbered arguments are formatted in one
// pass straight from the va_list. Integers, characters and strings are
// formatted here; floating-point and pointer conversions are handed to the
// runtime's own formatter one conversion at a time, so they come out exactly
// as the runtime writes them.
#include "frame/format.h"

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include <liblocal/catalog.h>
#include <liblocal/frame.h>

namespace ll {
namespace {

constexpr int kMaxArgs = 64;       // highest argument number a format may use
constexpr int kHugeWidth = 4096;   // wider floating conversions are padded here

enum Flag : unsigned { kLeft = 1, kPlus = 2, kSpace = 4, kAlt = 8, kZero = 16 };

enum Len : unsigned char { kNone, kHH, kH, kL, kLL, kBigL, kJ, kZ, kT };

// How an argument is fetched from the va_list.
enum Kind : unsigned char { kNoArg, kInt, kLong, kLLong, kIntmax, kSize, kPtrdiff, kDouble, kLDouble, kPtr };

// What an argument is, for comparing a translation with its original.
enum Class : unsigned char { cNone, cInt32, cInt64, cDouble, cLDouble, cStr, cWStr, cPtr };

struct ConvSpec {
  const char *begin = nullptr;  // the '%'
  const char *end = nullptr;    // past the conversion character
  unsigned flags = 0;
  int width = -1;               // -1: none
  int wpos = 0;                 // argument number of a "*m$" width
  bool wstar = false;
  int prec = -1;                // -1: none
  int ppos = 0;
  bool pstar = false;
  int apos = 0;                 // argument number, 0 when sequential
  bool bad_pos = false;         // an argument number out of range
  Len len = kNone;
  char conv = 0;                // 0: unknown conversion, written literally
  bool wide = false;            // %lc, %ls, %C, %S
};

// A va_list that can be passed by reference on every ABI.
struct VaList {
  va_list ap;
};

union Arg {
  uintmax_t u;
  double d;
  long double ld;
  const void *p;
};

// ---- output sink ------------------------------------------------------

struct Sink {
  char *buf;
  size_t cap;  // bytes available including the terminator; 0: measure only
  size_t pos;  // length of the whole text so far (saturating)

  size_t room() const { return (cap && pos < cap - 1) ? cap - 1 - pos : 0; }
  void advance(size_t n) { pos = (pos > SIZE_MAX - n) ? SIZE_MAX : pos + n; }
  void put(const char *s, size_t n) {
    size_t r = room();
    if (r) std::memcpy(buf + pos, s, n < r ? n : r);
    advance(n);
  }
  void fill(char c, size_t n) {
    size_t r = room();
    if (r) std::memset(buf + pos, c, n < r ? n : r);
    advance(n);
  }
  void putc(char c) {
    if (room()) buf[pos] = c;
    advance(1);
  }
  // Stops writing (the bytes from here on could not be produced).
  void freeze() {
    if (cap && pos < cap - 1) cap = pos + 1;
  }
};

size_t lead_length(unsigned c) {
  return c < 0xC0 ? 1 : c < 0xE0 ? 2 : c < 0xF0 ? 3 : c < 0xF8 ? 4 : c < 0xFC ? 5 : 6;
}

void terminate(Sink &o) {
  if (!o.cap) return;
  size_t end = o.pos < o.cap - 1 ? o.pos : o.cap - 1;
  if (o.pos > end) {
    // Cut: never leave the first bytes of a character at the end.
    size_t i = end;
    while (i > 0 && end - i < 6) {
      --i;
      const auto c = static_cast<unsigned char>(o.buf[i]);
      if ((c & 0xC0) != 0x80) {
        if (c >= 0xC0 && i + lead_length(c) > end) end = i;
        break;
      }
    }
  }
  o.buf[end] = 0;
}

// ---- parsing ----------------------------------------------------------

// Reads digits, saturating at INT_MAX.
int read_number(const char *&p) {
  long long v = 0;
  while (*p >= '0' && *p <= '9') {
    if (v < INT_MAX) v = v * 10 + (*p - '0');
    ++p;
  }
  return v > INT_MAX ? INT_MAX : static_cast<int>(v);
}

// Reads "m$" after a '*'; 0 when absent. Sets bad on a number out of range.
int read_star_pos(const char *&p, bool &bad) {
  const char *q = p;
  if (*q < '0' || *q > '9') return 0;
  int n = read_number(q);
  if (*q != '$') return 0;
  p = q + 1;
  if (n < 1 || n > kMaxArgs) bad = true;
  return n;
}

// Parses the conversion starting at p (a '%'); returns the position after it.
const char *parse(const char *p, ConvSpec &s) {
  s = ConvSpec{};
  s.begin = p++;
  // argument number
  {
    const char *q = p;
    if (*q >= '1' && *q <= '9') {
      int n = read_number(q);
      if (*q == '$') {
        s.apos = n;
        if (n > kMaxArgs) s.bad_pos = true;
        p = q + 1;
      }
    }
  }
  for (;; ++p) {
    switch (*p) {
      case '-': s.flags |= kLeft; continue;
      case '+': s.flags |= kPlus; continue;
      case ' ': s.flags |= kSpace; continue;
      case '#': s.flags |= kAlt; continue;
      case '0': s.flags |= kZero; continue;
      case '\'': continue;  // digit grouping: none in the library's output
      default: break;
    }
    break;
  }
  if (*p == '*') {
    ++p;
    s.wstar = true;
    s.wpos = read_star_pos(p, s.bad_pos);
  } else if (*p >= '1' && *p <= '9') {
    s.width = read_number(p);
  }
  if (*p == '.') {
    ++p;
    if (*p == '*') {
      ++p;
      s.pstar = true;
      s.ppos = read_star_pos(p, s.bad_pos);
    } else {
      s.prec = read_number(p);
    }
  }
  switch (*p) {
    case 'h':
      ++p;
      if (*p == 'h') ++p, s.len = kHH;
      else s.len = kH;
      break;
    case 'l':
      ++p;
      if (*p == 'l') ++p, s.len = kLL;
      else s.len = kL;
      break;
    case 'L': ++p, s.len = kBigL; break;
    case 'q': ++p, s.len = kLL; break;
    case 'j': ++p, s.len = kJ; break;
    case 'z': ++p, s.len = kZ; break;
    case 't': ++p, s.len = kT; break;
    case 'w': ++p, s.len = kL; break;
    case 'I':
      if (p[1] == '6' && p[2] == '4') p += 3, s.len = kLL;
      else if (p[1] == '3' && p[2] == '2') p += 3, s.len = kNone;
      else ++p, s.len = kZ;
      break;
    default: break;
  }
  const char c = *p;
  switch (c) {
    case 'd': case 'i': case 'u': case 'o': case 'x': case 'X':
    case 'e': case 'E': case 'f': case 'F': case 'g': case 'G': case 'a': case 'A':
    case 'p': case 'n': case '%':
      s.conv = c;
      break;
    case 'c': case 's':
      s.conv = c;
      s.wide = s.len == kL;
      break;
    case 'C': case 'S':
      s.conv = static_cast<char>(c - 'A' + 'a');
      s.wide = s.len != kH;
      break;
    default:
      s.conv = 0;
      break;
  }
  if (c) ++p;
  s.end = p;
  return p;
}

Kind int_kind(Len len) {
  switch (len) {
    case kL: return kLong;
    case kLL: case kBigL: return kLLong;
    case kJ: return kIntmax;
    case kZ: return kSize;
    case kT: return kPtrdiff;
    default: return kInt;
  }
}

Kind kind_of(const ConvSpec &s) {
  switch (s.conv) {
    case 'd': case 'i': case 'u': case 'o': case 'x': case 'X': return int_kind(s.len);
    case 'c': return kInt;
    case 's': case 'p': case 'n': return kPtr;
    case 'e': case 'E': case 'f': case 'F': case 'g': case 'G': case 'a': case 'A':
      return s.len == kBigL ? kLDouble : kDouble;
    default: return kNoArg;
  }
}

template <class T> constexpr Class int_class() { return sizeof(T) <= 4 ? cInt32 : cInt64; }

Class class_of(const ConvSpec &s) {
  switch (kind_of(s)) {
    case kInt: return cInt32;
    case kLong: return int_class<long>();
    case kLLong: return int_class<long long>();
    case kIntmax: return int_class<intmax_t>();
    case kSize: return int_class<size_t>();
    case kPtrdiff: return int_class<ptrdiff_t>();
    case kDouble: return cDouble;
    case kLDouble: return cLDouble;
    case kPtr: return s.conv == 's' ? (s.wide ? cWStr : cStr) : cPtr;
    default: return cNone;
  }
}

// Fetch kinds that read the same slots of a va_list.
Kind fetch_kind(Kind k) {
  switch (k) {
    case kLong: return sizeof(long) == sizeof(int) ? kInt : kLLong;
    case kIntmax: return sizeof(intmax_t) == sizeof(int) ? kInt : kLLong;
    case kSize: return sizeof(size_t) == sizeof(int) ? kInt : kLLong;
    case kPtrdiff: return sizeof(ptrdiff_t) == sizeof(int) ? kInt : kLLong;
    default: return k;
  }
}

Arg fetch(Kind k, VaList &v) {
  Arg a;
  a.u = 0;
  switch (k) {
    case kInt: a.u = static_cast<uintmax_t>(static_cast<intmax_t>(va_arg(v.ap, int))); break;
    case kLong: a.u = static_cast<uintmax_t>(static_cast<intmax_t>(va_arg(v.ap, long))); break;
    case kLLong: a.u = static_cast<uintmax_t>(static_cast<intmax_t>(va_arg(v.ap, long long))); break;
    case kIntmax: a.u = static_cast<uintmax_t>(va_arg(v.ap, intmax_t)); break;
    case kSize: a.u = static_cast<uintmax_t>(va_arg(v.ap, size_t)); break;
    case kPtrdiff: a.u = static_cast<uintmax_t>(static_cast<intmax_t>(va_arg(v.ap, ptrdiff_t))); break;
    case kDouble: a.d = va_arg(v.ap, double); break;
    case kLDouble: a.ld = va_arg(v.ap, long double); break;
    case kPtr: a.p = va_arg(v.ap, const void *); break;
    case kNoArg: break;
  }
  return a;
}

// ---- conversions ------------------------------------------------------

void pad_out(Sink &o, size_t n) { o.fill(' ', n); }

void emit_int(Sink &o, const ConvSpec &s, uintmax_t raw, unsigned flags, int width, int prec) {
  const char conv = s.conv;
  const bool is_signed = conv == 'd' || conv == 'i';
  uintmax_t mag;
  bool neg = false;
  if (is_signed) {
    intmax_t v;
    const auto r = static_cast<intmax_t>(raw);
    switch (s.len) {
      case kHH: v = static_cast<signed char>(r); break;
      case kH: v = static_cast<short>(r); break;
      case kL: v = static_cast<long>(r); break;
      case kLL: case kBigL: v = static_cast<long long>(r); break;
      case kJ: v = r; break;
      case kZ: case kT: v = static_cast<ptrdiff_t>(r); break;
      default: v = static_cast<int>(r); break;
    }
    neg = v < 0;
    mag = neg ? static_cast<uintmax_t>(0) - static_cast<uintmax_t>(v) : static_cast<uintmax_t>(v);
  } else {
    switch (s.len) {
      case kHH: mag = static_cast<unsigned char>(raw); break;
      case kH: mag = static_cast<unsigned short>(raw); break;
      case kL: mag = static_cast<unsigned long>(raw); break;
      case kLL: case kBigL: mag = static_cast<unsigned long long>(raw); break;
      case kJ: mag = raw; break;
      case kZ: case kT: mag = static_cast<size_t>(raw); break;
      default: mag = static_cast<unsigned>(raw); break;
    }
  }
  char digits[72];
  char *end = digits + sizeof digits;
  char *d = end;
  const unsigned base = (conv == 'o') ? 8 : (conv == 'x' || conv == 'X') ? 16 : 10;
  const char *set = conv == 'X' ? "0123456789ABCDEF" : "0123456789abcdef";
  for (uintmax_t v = mag; v; v /= base) *--d = set[v % base];
  size_t nd = static_cast<size_t>(end - d);
  if (prec < 0) prec = 1;
  size_t zeros = static_cast<size_t>(prec) > nd ? static_cast<size_t>(prec) - nd : 0;
  if (conv == 'o' && (flags & kAlt) && zeros == 0 && (nd == 0 || *d != '0')) zeros = 1;
  char prefix[2];
  size_t np = 0;
  if (is_signed) {
    if (neg) prefix[np++] = '-';
    else if (flags & kPlus) prefix[np++] = '+';
    else if (flags & kSpace) prefix[np++] = ' ';
  } else if (base == 16 && (flags & kAlt) && mag) {
    prefix[np++] = '0';
    prefix[np++] = conv;
  }
  const size_t body = np + zeros + nd;
  const size_t w = width > 0 ? static_cast<size_t>(width) : 0;
  const size_t pad = w > body ? w - body : 0;
  if (flags & kLeft) {
    o.put(prefix, np);
    o.fill('0', zeros);
    o.put(d, nd);
    pad_out(o, pad);
  } else if ((flags & kZero) && s.prec < 0 && !s.pstar) {
    o.put(prefix, np);
    o.fill('0', zeros + pad);
    o.put(d, nd);
  } else {
    pad_out(o, pad);
    o.put(prefix, np);
    o.fill('0', zeros);
    o.put(d, nd);
  }
}

// A text of 'bytes' bytes and 'cols' columns, padded to 'width' columns.
void emit_padded(Sink &o, const char *s, size_t bytes, size_t cols, unsigned flags, int width) {
  const size_t w = width > 0 ? static_cast<size_t>(width) : 0;
  const size_t pad = w > cols ? w - cols : 0;
  if (!(flags & kLeft)) pad_out(o, pad);
  o.put(s, bytes);
  if (flags & kLeft) pad_out(o, pad);
}

// %s: width and precision in display columns, never cutting a character.
void emit_str(Sink &o, const char *s, unsigned flags, int width, int prec) {
  if (!s) s = "(null)";
  if (prec < 0 && width <= 0) {
    o.put(s, std::strlen(s));
    return;
  }
  const auto *p = reinterpret_cast<const unsigned char *>(s);
  size_t bytes = 0, cols = 0;
  const size_t limit = prec < 0 ? SIZE_MAX : static_cast<size_t>(prec);
  while (p[bytes]) {
    if (p[bytes] < 0x80) {  // the common case
      if (cols + 1 > limit) break;
      ++cols;
      ++bytes;
      continue;
    }
    size_t n;
    const size_t c = static_cast<size_t>(sequence_columns(p + bytes, 6, &n));
    if (cols + c > limit) break;
    cols += c;
    bytes += n;
  }
  emit_padded(o, s, bytes, cols, flags, width);
}

// Appends the UTF-8 form of one wide character; false when it has none.
size_t encode_utf8(char *out, uint32_t v) {
  if (v < 0x80) {
    out[0] = static_cast<char>(v);
    return 1;
  }
  if (v < 0x800) {
    out[0] = static_cast<char>(0xC0 | (v >> 6));
    out[1] = static_cast<char>(0x80 | (v & 0x3F));
    return 2;
  }
  if (v < 0x10000) {
    out[0] = static_cast<char>(0xE0 | (v >> 12));
    out[1] = static_cast<char>(0x80 | ((v >> 6) & 0x3F));
    out[2] = static_cast<char>(0x80 | (v & 0x3F));
    return 3;
  }
  if (v < 0x110000) {
    out[0] = static_cast<char>(0xF0 | (v >> 18));
    out[1] = static_cast<char>(0x80 | ((v >> 12) & 0x3F));
    out[2] = static_cast<char>(0x80 | ((v >> 6) & 0x3F));
    out[3] = static_cast<char>(0x80 | (v & 0x3F));
    return 4;
  }
  out[0] = '|';
  return 1;
}

// %ls: the wide text (UTF-16 or UTF-32, as wchar_t is) converted to UTF-8,
// then treated as %s.
void emit_wstr(Sink &o, const wchar_t *ws, unsigned flags, int width, int prec) {
  if (!ws) {
    emit_str(o, nullptr, flags, width, prec);
    return;
  }
  size_t n = 0;
  while (ws[n]) ++n;
  char stack[512];
  char *tmp = stack;
  const size_t need = n * 4 + 1;
  if (need > sizeof stack) {
    tmp = static_cast<char *>(std::malloc(need));
    if (!tmp) {
      o.freeze();
      return;
    }
  }
  size_t k = 0;
  for (size_t i = 0; i < n; ++i) {
    uint32_t v = static_cast<uint32_t>(ws[i]);
    if (sizeof(wchar_t) == 2) {
      v &= 0xFFFF;
      if (v >= 0xD800 && v < 0xDC00 && i + 1 < n) {
        const uint32_t lo = static_cast<uint32_t>(ws[i + 1]) & 0xFFFF;
        if (lo >= 0xDC00 && lo < 0xE000) {
          v = 0x10000 + ((v - 0xD800) << 10) + (lo - 0xDC00);
          ++i;
        }
      }
      if (v >= 0xD800 && v < 0xE000) v = '|';
    }
    k += encode_utf8(tmp + k, v);
  }
  tmp[k] = 0;
  emit_str(o, tmp, flags, width, prec);
  if (tmp != stack) std::free(tmp);
}

// Writes the conversion text used for the runtime: flags, width, precision,
// 'L' for long double, the conversion. Width is left out when 'no_width'.
void runtime_spec(char *out, const ConvSpec &s, unsigned flags, int width, int prec, bool no_width) {
  char *q = out;
  *q++ = '%';
  if (flags & kLeft) *q++ = '-';
  if (flags & kPlus) *q++ = '+';
  if (flags & kSpace) *q++ = ' ';
  if (flags & kAlt) *q++ = '#';
  if (flags & kZero) *q++ = '0';
  auto num = [&q](int v) {
    char t[16];
    int n = 0;
    do t[n++] = static_cast<char>('0' + v % 10);
    while ((v /= 10) != 0);
    while (n) *q++ = t[--n];
  };
  if (width > 0 && !no_width) num(width);
  if (prec >= 0) {
    *q++ = '.';
    num(prec);
  }
  if (s.len == kBigL && s.conv != 'p') *q++ = 'L';
  *q++ = s.conv;
  *q = 0;
}

int run_runtime(char *out, size_t cap, const char *conv, const ConvSpec &s, const Arg &a) {
  if (s.conv == 'p') return os::rt_format_pointer(out, cap, conv, a.p);
  if (s.len == kBigL) return os::rt_format_ldouble(out, cap, conv, a.ld);
  return os::rt_format_double(out, cap, conv, a.d);
}

// Floating-point and pointer conversions: the runtime's formatter.
void emit_runtime(Sink &o, const ConvSpec &s, const Arg &a, unsigned flags, int width, int prec) {
  const bool huge = width > kHugeWidth;
  char conv[64];
  runtime_spec(conv, s, flags, width, prec, huge);
  char stack[512];
  int n = run_runtime(stack, sizeof stack, conv, s, a);
  if (n < 0) return;
  const char *text = stack;
  char *heap = nullptr;
  size_t have = static_cast<size_t>(n);
  if (have >= sizeof stack) {
    // Only as much as can still be written is produced.
    size_t want = have;
    if (!huge && o.cap && o.room() < want) want = o.room();
    heap = static_cast<char *>(std::malloc(want + 1));
    if (!heap) {
      o.freeze();
      o.advance(have);
      return;
    }
    run_runtime(heap, want + 1, conv, s, a);
    text = heap;
  }
  const size_t written = have < sizeof stack ? have : std::strlen(text);
  if (!huge) {
    o.put(text, written);
    if (written < have) o.advance(have - written);
  } else {
    // A width the runtime is not asked for: pad here, zeros after the sign
    // or "0x" when the text is a number.
    const size_t w = static_cast<size_t>(width);
    const size_t pad = w > have ? w - have : 0;
    size_t lead = 0;
    if (written > 0 && (text[0] == '-' || text[0] == '+' || text[0] == ' ')) lead = 1;
    if (written > lead + 1 && text[lead] == '0' && (text[lead + 1] == 'x' || text[lead + 1] == 'X')) lead += 2;
    const bool digits = written > lead && text[lead] >= '0' && text[lead] <= '9';
    if (flags & kLeft) {
      o.put(text, written);
      pad_out(o, pad);
    } else if ((flags & kZero) && digits) {
      o.put(text, lead);
      o.fill('0', pad);
      o.put(text + lead, written - lead);
    } else {
      pad_out(o, pad);
      o.put(text, written);
    }
  }
  std::free(heap);
}

void emit(Sink &o, const ConvSpec &s, const Arg &a, unsigned flags, int width, int prec) {
  switch (s.conv) {
    case 'd': case 'i': case 'u': case 'o': case 'x': case 'X':
      emit_int(o, s, a.u, flags, width, prec);
      break;
    case 'c': {
      if (s.wide) {
        char t[4];
        const size_t n = encode_utf8(t, static_cast<uint32_t>(static_cast<wint_t>(a.u)));
        size_t nb;
        const int cols = sequence_columns(reinterpret_cast<unsigned char *>(t), n, &nb);
        emit_padded(o, t, n, static_cast<size_t>(cols), flags, width);
      } else {
        const char c = static_cast<char>(static_cast<unsigned char>(a.u));
        emit_padded(o, &c, 1, 1, flags, width);
      }
      break;
    }
    case 's':
      if (s.wide) emit_wstr(o, static_cast<const wchar_t *>(a.p), flags, width, prec);
      else emit_str(o, static_cast<const char *>(a.p), flags, width, prec);
      break;
    case 'n':
      break;  // never written through: formats may come from catalogs
    default:
      emit_runtime(o, s, a, flags, width, prec);
      break;
  }
}

// Applies a "*" width: a negative one means left-justified.
void star_width(int v, unsigned &flags, int &width) {
  if (v < 0) {
    flags |= kLeft;
    width = v == INT_MIN ? INT_MAX : -v;
  } else {
    width = v;
  }
}

// True when the format numbers its arguments (some conversion has "n$").
// Sets 'consistent' to false when numbered and unnumbered conversions are
// mixed or a number is out of range, and fills the fetch kinds.
bool scan_numbered(const char *fmt, Kind kinds[kMaxArgs + 1], int &max_pos, bool &consistent) {
  bool numbered = false, plain = false;
  consistent = true;
  max_pos = 0;
  for (int i = 0; i <= kMaxArgs; ++i) kinds[i] = kNoArg;
  auto note = [&](int pos, Kind k) {
    if (pos < 1 || pos > kMaxArgs) {
      consistent = false;
      return;
    }
    k = fetch_kind(k);
    if (kinds[pos] != kNoArg && kinds[pos] != k) consistent = false;
    kinds[pos] = k;
    if (pos > max_pos) max_pos = pos;
  };
  for (const char *p = fmt; (p = std::strchr(p, '%')) != nullptr;) {
    ConvSpec s;
    p = parse(p, s);
    if (s.conv == '%' || s.conv == 0) continue;
    if (s.bad_pos) consistent = false;
    (s.apos ? numbered : plain) = true;
    if (s.wstar) (s.wpos ? numbered : plain) = true;
    if (s.pstar) (s.ppos ? numbered : plain) = true;
    if (s.apos) note(s.apos, kind_of(s));
    if (s.wpos) note(s.wpos, kInt);
    if (s.ppos) note(s.ppos, kInt);
  }
  if (numbered && plain) consistent = false;
  return numbered;
}

size_t format_numbered(Sink &o, const char *fmt, VaList &v) {
  Kind kinds[kMaxArgs + 1];
  int max_pos;
  bool consistent;
  scan_numbered(fmt, kinds, max_pos, consistent);
  if (!consistent) {
    o.put(fmt, std::strlen(fmt));
    return o.pos;
  }
  Arg args[kMaxArgs + 1];
  for (int i = 1; i <= max_pos; ++i) args[i] = fetch(kinds[i] == kNoArg ? kInt : kinds[i], v);
  const char *p = fmt;
  for (;;) {
    const char *pc = std::strchr(p, '%');
    if (!pc) {
      o.put(p, std::strlen(p));
      break;
    }
    o.put(p, static_cast<size_t>(pc - p));
    ConvSpec s;
    p = parse(pc, s);
    if (s.conv == '%') {
      o.putc('%');
      continue;
    }
    if (s.conv == 0) {
      o.put(s.begin, static_cast<size_t>(s.end - s.begin));
      continue;
    }
    unsigned flags = s.flags;
    int width = s.width, prec = s.prec;
    if (s.wstar) star_width(static_cast<int>(static_cast<intmax_t>(args[s.wpos].u)), flags, width);
    if (s.pstar) {
      const int v = static_cast<int>(static_cast<intmax_t>(args[s.ppos].u));
      prec = v < 0 ? -1 : v;
    }
    // A conversion whose argument is fetched as another kind is given its
    // argument as fetched; the kinds of one number agree (checked above).
    emit(o, s, args[s.apos], flags, width, prec);
  }
  return o.pos;
}

size_t format_plain(Sink &o, const char *fmt, VaList &v) {
  const char *p = fmt;
  for (;;) {
    const char *pc = std::strchr(p, '%');
    if (!pc) {
      o.put(p, std::strlen(p));
      break;
    }
    o.put(p, static_cast<size_t>(pc - p));
    // The most common conversions without flags, width or precision.
    if (pc[1] == 's') {
      const char *s = va_arg(v.ap, const char *);
      if (!s) s = "(null)";
      o.put(s, std::strlen(s));
      p = pc + 2;
      continue;
    }
    if (pc[1] == 'd') {
      const int n = va_arg(v.ap, int);
      char t[16];
      char *e = t + sizeof t, *d = e;
      unsigned m = n < 0 ? 0u - static_cast<unsigned>(n) : static_cast<unsigned>(n);
      do *--d = static_cast<char>('0' + m % 10);
      while ((m /= 10) != 0);
      if (n < 0) *--d = '-';
      o.put(d, static_cast<size_t>(e - d));
      p = pc + 2;
      continue;
    }
    ConvSpec s;
    p = parse(pc, s);
    if (s.conv == '%') {
      o.putc('%');
      continue;
    }
    if (s.conv == 0) {
      o.put(s.begin, static_cast<size_t>(s.end - s.begin));
      continue;
    }
    unsigned flags = s.flags;
    int width = s.width, prec = s.prec;
    if (s.wstar) star_width(va_arg(v.ap, int), flags, width);
    if (s.pstar) {
      const int n = va_arg(v.ap, int);
      prec = n < 0 ? -1 : n;
    }
    const Arg a = fetch(kind_of(s), v);
    emit(o, s, a, flags, width, prec);
  }
  return o.pos;
}

// The argument classes a format reads, by argument number (1-based); false
// when the format reads none because it would be written literally.
bool signature(const char *fmt, Class cls[kMaxArgs + 1], int &count) {
  for (int i = 0; i <= kMaxArgs; ++i) cls[i] = cNone;
  count = 0;
  Kind kinds[kMaxArgs + 1];
  int max_pos;
  bool consistent;
  const bool numbered = scan_numbered(fmt, kinds, max_pos, consistent);
  if (numbered && !consistent) return false;
  int next = 0;
  bool overflow = false;
  auto add = [&](int pos, Class c) {
    if (pos < 1 || pos > kMaxArgs) {
      overflow = true;
      return;
    }
    if (cls[pos] == cNone) cls[pos] = c;
    if (pos > count) count = pos;
  };
  for (const char *p = fmt; (p = std::strchr(p, '%')) != nullptr;) {
    ConvSpec s;
    p = parse(p, s);
    if (s.conv == '%' || s.conv == 0) continue;
    if (s.wstar) add(numbered ? s.wpos : ++next, cInt32);
    if (s.pstar) add(numbered ? s.ppos : ++next, cInt32);
    add(numbered ? s.apos : ++next, class_of(s));
  }
  if (overflow) count = kMaxArgs + 1;
  return true;
}

}  // namespace

int sequence_columns(const unsigned char *s, size_t avail, size_t *bytes) noexcept {
  const unsigned c = s[0];
  size_t n;
  int cols;
  if (c < 0xC0) n = 1, cols = 1;
  else if (c < 0xE0) n = 2, cols = 1;
  else if (c < 0xE3) n = 3, cols = 1;
  else if (c < 0xEF) n = 3, cols = 2;
  else if (c == 0xEF) n = 3, cols = 0;
  else if (c < 0xF8) n = 4, cols = 2;
  else if (c < 0xFC) n = 5, cols = 2;
  else n = 6, cols = 2;
  if (n > avail) n = avail;
  size_t have = 1;  // never past the terminator
  while (have < n && s[have]) ++have;
  if (c == 0xEF) {
    const unsigned b1 = have > 1 ? s[1] : 0, b2 = have > 2 ? s[2] : 0;
    if (b1 < 0xAC || b1 == 0xBC || (b1 == 0xBD && b2 < 0xA0) || (b1 == 0xBF && b2 >= 0xA0 && b2 <= 0xA7))
      cols = 2;
    else
      cols = 1;
  }
  *bytes = have;
  return cols;
}

size_t vformat(char *buf, size_t cap, const char *fmt, va_list ap) noexcept {
  Sink o{buf, buf ? cap : 0, 0};
  if (!fmt) fmt = "";
  VaList aq;
  va_copy(aq.ap, ap);
  if (std::strchr(fmt, '$')) {
    Kind kinds[kMaxArgs + 1];
    int max_pos;
    bool consistent;
    if (scan_numbered(fmt, kinds, max_pos, consistent) || !consistent)
      format_numbered(o, fmt, aq);
    else
      format_plain(o, fmt, aq);
  } else {
    format_plain(o, fmt, aq);
  }
  va_end(aq.ap);
  terminate(o);
  return o.pos;
}

size_t format(char *buf, size_t cap, const char *fmt, ...) noexcept {
  va_list ap;
  va_start(ap, fmt);
  const size_t n = vformat(buf, cap, fmt, ap);
  va_end(ap);
  return n;
}

char *vformat_alloc(const char *fmt, va_list ap) noexcept {
  if (!fmt) return nullptr;
  const size_t cap = std::strlen(fmt) + kFormatSlack;
  auto *buf = static_cast<char *>(std::malloc(cap));
  if (!buf) return nullptr;
  vformat(buf, cap, fmt, ap);
  return buf;
}

bool format_compatible(const char *fmt, const char *reference) noexcept {
  if (!fmt || !reference) return fmt == reference || !fmt;
  if (fmt == reference || std::strcmp(fmt, reference) == 0) return true;
  Class a[kMaxArgs + 1], b[kMaxArgs + 1];
  int na, nb;
  if (!signature(fmt, a, na)) return true;  // written literally: reads nothing
  if (!signature(reference, b, nb)) return na == 0;
  if (na > nb || na > kMaxArgs) return false;
  for (int i = 1; i <= na; ++i) {
    if (a[i] == b[i]) continue;
    if (a[i] == cNone) {
      // An unused argument is fetched as an int: that must read the same
      // slot as what the caller passes.
      const bool slot = b[i] == cInt32 || b[i] == cStr || b[i] == cWStr || b[i] == cPtr ||
                        (b[i] == cInt64 && sizeof(void *) == 8);
      if (slot) continue;
    }
    if (a[i] == cPtr && (b[i] == cStr || b[i] == cWStr)) continue;  // %p of a text
    return false;
  }
  return true;
}

const char *catalog_format(int number, const char *english, char *buf, size_t size) noexcept {
  const char *t = qzcatgets_buf(buf, size, Catd, 17, number, english);
  return format_compatible(t, english) ? t : english;
}

}  // namespace ll

extern "C" {
// Test seam: whether a translated format may be used with the arguments of
// its original.
LL_API int llt_format_compatible(const char *fmt, const char *reference) noexcept {
  return ll::format_compatible(fmt, reference) ? 1 : 0;
}
}

// Path syntax: joining, canonical form, absolute form, taking paths apart.
// Pure string work on UTF-8 bytes; only ASCII letters change case.
#include <liblocal/output.h>
#include <liblocal/path.h>
#include <liblocal/wfile.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "frame/areas.h"
#include "paths/paths.h"

namespace ll::paths {

int ascii_lower(int c) noexcept { return (c >= 'A' && c <= 'Z') ? c + 32 : c; }

bool equal_nocase(const char *a, const char *b) noexcept {
  for (; *a && *b; ++a, ++b)
    if (ascii_lower(static_cast<unsigned char>(*a)) != ascii_lower(static_cast<unsigned char>(*b))) return false;
  return *a == *b;
}

bool prefix_nocase(const char *s, const char *prefix) noexcept {
  for (; *prefix; ++s, ++prefix)
    if (!*s || ascii_lower(static_cast<unsigned char>(*s)) != ascii_lower(static_cast<unsigned char>(*prefix)))
      return false;
  return true;
}

namespace {

struct CwdLock {
  std::recursive_mutex m;
};

inline void upper_range(char *from, char *to) {
  for (char *p = from; p < to; ++p)
    if (*p >= 'a' && *p <= 'z') *p = static_cast<char>(*p - 32);
}

constexpr uint64_t kOnes = 0x0101010101010101ull, kHigh = 0x8080808080808080ull, kLow7 = 0x7F7F7F7F7F7F7F7Full;

// High bit of every byte of x equal to c (exact, no false positives).
inline uint64_t bytes_equal(uint64_t x, unsigned char c) {
  const uint64_t v = x ^ (kOnes * c);
  return ~(((v & kLow7) + kLow7) | v | kLow7);
}

// The common case of canon_dirsep: no separator run, no component starting
// with a dot, trailing separators aside. Such a path only needs its slashes
// turned, its drive part raised and its trailing separators cut, which goes
// eight bytes at a time. Returns false for any other path (buf may then hold
// part of the copy, which reads the same as the name).
bool simple_canon(const char *name, size_t len, char *buf, char sep) {
  const bool bs = sep == kBackslash;
  auto is_sep = [bs, sep](char c) { return c == sep || (bs && c == '/'); };
  while (len && is_sep(name[len - 1])) --len;
  if (len == 0 || (len > 1 && name[1] == '.')) return false;
  uint64_t carry = 0;  // the last byte of the previous word was a separator
  size_t i = 0;
  for (; i + 8 <= len; i += 8) {
    uint64_t x;
    std::memcpy(&x, name + i, 8);
    const uint64_t slash = bytes_equal(x, '/');
    const uint64_t seps = bs ? (slash | bytes_equal(x, '\\')) : slash;
    const uint64_t next = seps | bytes_equal(x, '.');
    // a separator followed by a separator or a dot (little-endian: the next byte is the higher one)
    if (((seps << 8) | carry) & next) return false;
    carry = (seps >> 56) & 0x80;
    if (bs) x ^= (slash >> 7) * static_cast<unsigned char>('/' ^ '\\');
    std::memcpy(buf + i, &x, 8);
  }
  for (; i < len; ++i) {
    char c = name[i];
    if (carry && (is_sep(c) || c == '.')) return false;
    carry = is_sep(c);
    buf[i] = carry ? sep : c;
  }
  buf[len] = 0;
  if (bs) {
    if (const char *colon = static_cast<const char *>(std::memchr(buf, ':', len))) upper_range(buf, const_cast<char *>(colon));
  }
  return true;
}

// The part of a backslash path that folding works on; null when the path is
// a UNC name that is not folded at all. Upper-cases the drive or host part.
char *prepare_backslash(char *buf) {
  size_t len = 0;
  for (char *p = buf; *p; ++p, ++len)
    if (*p == '/') *p = '\\';
  if (len && buf[len - 1] == '"') buf[--len] = 0;
  if (!is_unc_path(buf)) {
    if (char *colon = std::strchr(buf, ':')) upper_range(buf, colon);
    return buf;
  }
  char *host = const_cast<char *>(unc_skip_prefix(buf));
  const int type = get_unc_obj_type(buf);
  char *file = const_cast<char *>(get_unc_file_path(buf));
  char *end;
  if (type == 1) {
    end = file ? file : buf + len;
  } else {
    end = std::strchr(host, '\\');
    if (!end) end = buf + len;
  }
  upper_range(host, end);
  if (type != 1 || !file) return nullptr;
  return file;
}

// Folds "." and ".." components of region (which ends the string). The first
// character is never examined as part of a component.
void fold(char *region, char sep) {
  if (!*region) return;
  char *cur = region;  // a separator, or the region's first character
  // End of the string, kept up to date so that removals move only the tail.
  char *end = region + std::strlen(region);
  while (cur < end) {
    char *c = cur + 1;
    char *e = c;
    while (e < end && *e != sep) ++e;
    const size_t n = static_cast<size_t>(e - c);
    if (n == 1 && c[0] == '.') {
      std::memmove(cur, e, static_cast<size_t>(end - e) + 1);
      end -= e - cur;
      continue;
    }
    if (n == 2 && c[0] == '.' && c[1] == '.') {
      char *start = region;
      if (cur != region) {
        char *q = cur - 1;
        while (q > region && *q != sep) --q;
        if (*q == sep) start = q;
      }
      std::memmove(start, e, static_cast<size_t>(end - e) + 1);
      end -= e - start;
      cur = start;
      continue;
    }
    cur = e;
  }
}

}  // namespace

std::recursive_mutex &cwd_lock() noexcept { return ll::process_area<CwdLock>()->m; }

}  // namespace ll::paths

using namespace ll::paths;

extern "C" {

LL_API char *path_concat_dirsep(const char *dir, const char *name, int sep) noexcept {
  if (!dir && !name) return nullptr;
  if (!dir) dir = ".\\";
  if (!name) name = "";
  const size_t dl = std::strlen(dir), nl = std::strlen(name);
  auto *out = static_cast<char *>(std::malloc(dl + nl + 2));
  if (!out) return nullptr;
  std::memcpy(out, dir, dl);
  size_t at = dl;
  if (!(dl && dir[dl - 1] == static_cast<char>(sep))) out[at++] = static_cast<char>(sep);
  std::memcpy(out + at, name, nl + 1);
  return out;
}

LL_API char *path_concat(const char *dir, const char *name) noexcept { return path_concat_dirsep(dir, name, '\\'); }

}  // extern "C"

namespace ll::paths {
// The general form of canon_dirsep: UNC names, and the reference the fast
// path is checked against.
void canon_reference(const char *name, char *buf, int sep_in) noexcept {
  if (!name || !buf) return;
  const char sep = static_cast<char>(sep_in);
  if (buf != name) std::memmove(buf, name, std::strlen(name) + 1);
  char *region = buf;
  if (sep == kBackslash) {
    region = prepare_backslash(buf);
    if (!region) return;
  }
  // Collapse separator runs and cut trailing separators in one pass.
  char *w = region;
  for (const char *r = region; *r;) {
    if (*r == sep) {
      while (*r == sep) ++r;
      if (*r) *w++ = sep;
    } else {
      *w++ = *r++;
    }
  }
  *w = 0;
  if (!*region && !*buf) {
    buf[0] = '/';
    buf[1] = 0;
    return;
  }
  fold(region, sep);
  if (!*buf) {
    buf[0] = '/';
    buf[1] = 0;
  }
}

namespace {

// One pass of canonical form over [r, end) into region (which may be where
// r points: the writer never passes the reader). Letters before 'colon' are
// raised (the drive part). Returns the end of the output, or null when the
// text holds nothing but separators.
char *canon_pass(const char *r, const char *const end, char *const region, char sep, const char *colon) {
  const bool bs = sep == kBackslash;
  auto is_sep = [bs, sep](char c) { return c == sep || (bs && c == '/'); };
  char *w = region;
  if (r == end) return region;
  const bool overlap = region < end && r < region + (end - r);
  // The first character is a pair's leading character like a separator.
  {
    char c = *r++;
    if (is_sep(c)) {
      c = sep;
      while (r < end && is_sep(*r)) ++r;
      if (r == end) return nullptr;  // only separators
    } else if (r <= colon && c >= 'a' && c <= 'z') {
      c = static_cast<char>(c - 32);
    }
    *w++ = c;
  }
  char *pair = region;  // start of the current (leading character, component) pair
  const uint64_t sep_word = kOnes * static_cast<unsigned char>(sep);
  const uint64_t slash_word = kOnes * static_cast<unsigned char>('/');
  for (;;) {
    // Copy the component up to the next separator.
    while (r < colon) {
      char c = *r;
      if (is_sep(c)) break;
      if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 32);
      *w++ = c;
      ++r;
    }
    // Eight bytes at a time up to the next separator. A whole word is always
    // stored (the output has room: w + 8 <= r + 8 <= end, mapped into region),
    // except where it would overwrite input not yet read when working in place.
    while (end - r >= 8) {
      uint64_t x;
      std::memcpy(&x, r, 8);
      const uint64_t a = x ^ sep_word, b = x ^ slash_word;
      uint64_t hit = ((a - kOnes) & ~a & kHigh);
      if (bs) hit |= ((b - kOnes) & ~b & kHigh);
      if (!hit) {
        std::memcpy(w, &x, 8);  // x already holds the bytes: in place is safe
        w += 8;
        r += 8;
        continue;
      }
      // The first separator (little-endian: the lowest byte is the first);
      // the borrow trick can only mark bytes after a true match, never before.
      const size_t k = static_cast<size_t>(__builtin_ctzll(hit) >> 3);
      if (!overlap || r == w || r - w >= 8)
        std::memcpy(w, &x, 8);
      else
        std::memmove(w, r, k);
      w += k;
      r += k;
      break;
    }
    while (r < end && !is_sep(*r)) *w++ = *r++;
    // Fold the pair just completed.
    const size_t n = static_cast<size_t>(w - pair - 1);
    if (n == 1 && pair[1] == '.') {
      w = pair;
    } else if (n == 2 && pair[1] == '.' && pair[2] == '.') {
      if (pair == region) {
        w = region;
      } else {
        char *q = pair - 1;
        while (q > region && *q != sep) --q;
        w = q;
      }
    }
    if (r == end) break;
    while (r < end && is_sep(*r)) ++r;
    if (r == end) break;  // trailing separators are dropped
    pair = w;
    *w++ = sep;
  }
  return w;
}

}  // namespace
}  // namespace ll::paths

extern "C" {

LL_API void canon_dirsep(const char *name, char *buf, int sep_in) noexcept {
  if (!name || !buf) return;
  const char sep = static_cast<char>(sep_in);
  const bool bs = sep == kBackslash;
  auto is_sep = [bs, sep](char c) { return c == sep || (bs && c == '/'); };
  if (bs && is_sep(name[0]) && is_sep(name[1])) {
    // A UNC name: the host and share part is raised and kept as it is, and
    // only the file path inside it is folded, in place.
    if (buf != name) std::memmove(buf, name, std::strlen(name) + 1);
    char *region = prepare_backslash(buf);
    if (!region) return;
    char *w = canon_pass(region, region + std::strlen(region), region, sep, region);
    *(w ? w : region) = 0;
    if (!*buf) {  // a name that only looked like UNC, folded away entirely
      buf[0] = '/';
      buf[1] = 0;
    }
    return;
  }
  size_t len = std::strlen(name);
  if (bs && len && name[len - 1] == '"') --len;  // the stray closing quote
  if (simple_canon(name, len, buf, sep)) return;
  const char *colon = bs ? static_cast<const char *>(std::memchr(name, ':', len)) : nullptr;
  char *w = canon_pass(name, name + len, buf, sep, colon ? colon : name);
  if (!w || w == buf) {
    buf[0] = '/';
    buf[1] = 0;
    return;
  }
  *w = 0;
}

LL_API void canon(const char *name, char *buf) noexcept { canon_dirsep(name, buf, '\\'); }

LL_API char *fullcanon_dirsep(const char *name, char *buf, const char *cwd, int sep_in) noexcept {
  if (!name || !buf) return buf;
  const char sep = static_cast<char>(sep_in);
  char dirbuf[kPathBuf];
  if (!cwd) {
    if (sep != kBackslash) std::abort();
    bool ok;
    const bool drive_rel = std::strlen(name) >= 2 && ((name[0] | 32) >= 'a' && (name[0] | 32) <= 'z') &&
                           name[1] == ':' && name[2] != '\\';
    if (drive_rel)
      ok = drive_cwd((name[0] & ~32) - 'A' + 1, dirbuf, kPathBuf - 1);
    else
      ok = utf8_getcwd(dirbuf, kPathBuf - 1) != nullptr;
    if (!ok) {
      dprintf(1, "Cannot get current directory!\n");
      return buf;
    }
    const size_t dl = std::strlen(dirbuf);
    if (dl > 1 && dirbuf[dl - 1] == '\\') dirbuf[dl - 1] = 0;
    cwd = dirbuf;
  }
  dprintf(5, "fullcanon(name=%s)\n", name);

  // The string to canonicalise: a working buffer, on the heap only for
  // names longer than it.
  char work[kPathBuf];
  char *joined = work;
  char *heap = nullptr;
  auto join = [&](const char *a, size_t al, char mid, const char *b) {
    const size_t bl = std::strlen(b);
    const size_t need = al + (mid ? 1 : 0) + bl + 1;
    if (need > sizeof work) {
      heap = static_cast<char *>(std::malloc(need));
      if (!heap) return false;
      joined = heap;
    }
    std::memcpy(joined, a, al);
    size_t at = al;
    if (mid) joined[at++] = mid;
    std::memcpy(joined + at, b, bl + 1);
    return true;
  };
  const char *src = name;
  char csep = sep;
  bool ok = true;
  if (name[0] == '/') {
    csep = kSlash;
  } else if (sep == kSlash) {
    ok = join(cwd, std::strlen(cwd), '/', name);
    src = joined;
  } else if (is_unc_path(name)) {
    // the name itself
  } else if (name[0] == sep) {
    char drive[2] = {cwd[0], ':'};
    ok = join(drive, cwd[0] ? 2 : 0, 0, name);
    src = joined;
  } else if (const char *colon = std::strchr(name, ':')) {
    if (colon == name + 1 && name[2] != sep && name[2] != '/' && name[2] != 0) {
      ok = join(cwd, std::strlen(cwd), '\\', name + 2);
      src = joined;
    }
  } else {
    ok = join(cwd, std::strlen(cwd), '\\', name);
    src = joined;
  }
  if (ok) canon_dirsep(src, buf, csep);
  std::free(heap);
  dprintf(5, "   exit fullcanon(fullname=%s)\n", buf);
  return buf;
}

LL_API char *fullcanon(const char *name, char *buf, const char *cwd) noexcept {
  return fullcanon_dirsep(name, buf, cwd, '\\');
}

LL_API char *getpathchild_dirsep(const char *path, char *buf, unsigned int size, int sep_in) noexcept {
  const char sep = static_cast<char>(sep_in);
  if (buf && buf != path && size) buf[0] = 0;
  if (!path) return nullptr;
  const size_t len = std::strlen(path);
  if (!buf) {
    buf = static_cast<char *>(std::calloc(1, len + 1));
    if (!buf) return nullptr;
    size = static_cast<unsigned>(len + 1);
  }
  if (sep == kBackslash && is_unc_path(path)) {
    const char *file = get_unc_file_path(path);
    if (get_unc_obj_type(path) != 1 || !file || std::strcmp(file, "\\") == 0) {
      if (len + 1 > size) return nullptr;
      std::memmove(buf, path, len + 1);
      return buf;
    }
  }
  if (std::strcmp(path, "/") == 0) {
    if (!size) {
      errno = 28;
      return nullptr;
    }
    buf[0] = 0;
    return buf;
  }
  size_t end = len;
  const bool trailing = len && path[len - 1] == sep;
  if (trailing) --end;
  size_t start = 0;
  size_t i = end;
  while (i > 0 && path[i - 1] != sep) --i;
  if (i > 0) {
    start = i;
  } else if (sep == kBackslash) {
    if (const char *colon = std::strchr(path, ':')) {
      const bool own = colon[1] == 0 || (colon[1] == '\\' && colon[2] == 0);
      start = own ? 0 : static_cast<size_t>(colon - path) + 1;
    }
  }
  const size_t n = len - start;
  if (n + 1 > size) {
    errno = 28;
    return nullptr;
  }
  std::memmove(buf, path + start, n + 1);
  if (trailing && n) buf[n - 1] = 0;
  return buf;
}

LL_API char *getpathchild(const char *path, char *buf, unsigned int size) noexcept {
  return getpathchild_dirsep(path, buf, size, '\\');
}

LL_API char *getpathparent_dirsep(const char *path, char *buf, unsigned int size, int sep_in) noexcept {
  const char sep = static_cast<char>(sep_in);
  if (buf && buf != path && size) buf[0] = 0;
  if (!path) return nullptr;
  const size_t len = std::strlen(path);
  bool allocated = false;
  if (!buf) {
    buf = static_cast<char *>(std::calloc(1, len + 2));  // room for the root answer
    if (!buf) return nullptr;
    size = static_cast<unsigned>(len + 1);
    allocated = true;
  }
  auto root = [&]() {
    buf[0] = '/';
    buf[1] = 0;
    return buf;
  };
  auto fail = [&]() -> char * {
    if (allocated) std::free(buf);
    return nullptr;
  };
  if (sep == kBackslash && is_unc_path(path)) {
    const char *file = get_unc_file_path(path);
    if (get_unc_obj_type(path) != 1 || !file || std::strcmp(file, "\\") == 0) return root();
  }
  if (std::strcmp(path, "/") == 0) return root();
  size_t end = len;
  if (len && path[len - 1] == sep) --end;
  size_t i = end;
  while (i > 0 && path[i - 1] != sep) --i;
  size_t plen;
  if (i > 0) {
    plen = i - 1;
    if (plen == 0) return root();
  } else if (sep == kBackslash) {
    const char *colon = std::strchr(path, ':');
    if (!colon) return fail();
    if (colon[1] == 0 || (colon[1] == '\\' && colon[2] == 0)) return root();
    plen = static_cast<size_t>(colon - path) + 1;
  } else {
    return fail();
  }
  if (plen + 1 > size) {
    errno = 28;
    return fail();
  }
  std::memmove(buf, path, plen);
  buf[plen] = 0;
  return buf;
}

LL_API char *getpathparent(const char *path, char *buf, unsigned int size) noexcept {
  return getpathparent_dirsep(path, buf, size, '\\');
}

LL_API unsigned int getpathdepth_dirsep(const char *path, int sep_in) noexcept {
  if (!path) return 0;
  const char sep = static_cast<char>(sep_in);
  unsigned count = 0;
  const char *p = path;
  if (sep == kBackslash && is_unc_path(path)) {
    const char *file = get_unc_file_path(path);
    if (get_unc_obj_type(path) != 1 || !file || std::strcmp(file, "\\") == 0) return 1;
    count = 1;
    p = file;
  }
  for (; *p; ++p) {
    if (*p == sep && p[1]) ++count;
    else if (sep == kBackslash && *p == ':' && p[1] != '\\') ++count;
  }
  return count;
}

LL_API unsigned int getpathdepth(const char *path) noexcept { return getpathdepth_dirsep(path, '\\'); }

LL_API char *adddirsep(char *path, int sep) noexcept {
  if (!path || std::strcmp(path, "/") == 0) return path;
  const size_t len = std::strlen(path);
  if (len && path[len - 1] == static_cast<char>(sep)) return path;
  path[len] = static_cast<char>(sep);
  path[len + 1] = 0;
  return path;
}

LL_API int rmdirsep(char *path, int sep) noexcept {
  if (!path) return 0;
  size_t len = std::strlen(path);
  if (len < 2) return 0;
  int cut = 0;
  while (len > 1 && path[len - 1] == static_cast<char>(sep)) {
    path[--len] = 0;
    ++cut;
  }
  return cut;
}

LL_API char *setdirsep(char *path, int count, int sep) noexcept {
  if (!path) return path;
  if (std::strcmp(path, "/") == 0) {
    count -= 1;
  } else {
    rmdirsep(path, sep);
  }
  size_t len = std::strlen(path);
  for (int i = 0; i < count; ++i) path[len++] = static_cast<char>(sep);
  path[len] = 0;
  return path;
}

LL_API int ispathrelative(const char *path, int sep) noexcept {
  if (!path) return 1;
  if (sep != kBackslash) return path[0] == '/' ? 0 : 1;
  if (is_unc_path(path) || std::strcmp(path, "/") == 0 || path[0] == '\\' || std::strchr(path, ':')) return 0;
  return 1;
}

LL_API char *qz_dirname(const char *path) noexcept {
  if (!path) return nullptr;
  char *d = strdup(path);
  if (!d) return nullptr;
  size_t len = std::strlen(d);
  if (len && d[len - 1] == '\\') d[--len] = 0;
  char *last = std::strrchr(d, '\\');
  if (last == d) {
    d[1] = 0;
    return d;
  }
  if (last) {
    *last = 0;
    if (*d) return d;
  }
  std::free(d);
  return nullptr;
}

LL_API char *parse_apppath(const char *appname, const char *path) noexcept {
  if (!appname || !path || !*appname || !*path) return nullptr;
  const size_t al = std::strlen(appname), pl = std::strlen(path);
  auto dup = [](const char *s, size_t n) -> char * {
    auto *out = static_cast<char *>(std::malloc(n + 1));
    if (!out) return nullptr;
    std::memcpy(out, s, n);
    out[n] = 0;
    return out;
  };
  // Case-insensitive match of "<lead>appname\" at path[i].
  auto at = [&](size_t i, char lead) {
    if (i + al + 2 > pl || path[i] != lead) return false;
    for (size_t k = 0; k < al; ++k)
      if (ascii_lower(static_cast<unsigned char>(path[i + 1 + k])) != ascii_lower(static_cast<unsigned char>(appname[k])))
        return false;
    return path[i + 1 + al] == '\\';
  };
  for (size_t i = pl; i-- > 0;)
    if (at(i, '\\')) return dup(path, i + 1 + al);
  for (size_t i = 0; i < pl; ++i)
    if (at(i, ':')) return dup(path, i + 1 + al);
  if (pl > al && path[al] == '\\' && prefix_nocase(path, appname)) return dup(path, al);
  return nullptr;
}

LL_API char *eightdot3(char *path) noexcept {
  if (!path) return path;
  char shortbuf[kPathBuf];
  if (short_name(path, shortbuf, kPathBuf - 1) && std::strlen(shortbuf) <= std::strlen(path))
    std::memcpy(path, shortbuf, std::strlen(shortbuf) + 1);
  return path;
}

LL_API char *qzmo_getcwd(char *buf, int size) noexcept {
  std::lock_guard<std::recursive_mutex> g(cwd_lock());
  return utf8_getcwd(buf, size);
}

}  // extern "C"

extern "C" {
// Test seam: the step-by-step canonical form the fast path must agree with.
LL_API void llt_canon_reference(const char *name, char *buf, int sep) noexcept {
  ll::paths::canon_reference(name, buf, sep);
}
}  // extern "C"

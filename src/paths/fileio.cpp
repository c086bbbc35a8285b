// The portable half of the file layer: the name matcher, absolute names,
// recursive make and remove, and the file layer's initialisation steps.
#include <liblocal/fileio.h>
#include <liblocal/path.h>
#include <liblocal/utf8.h>
#include <liblocal/wfile.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "frame/areas.h"
#include "frame/output.h"
#include "frame/init_steps.h"
#include "paths/paths.h"

using namespace ll::paths;

namespace {

// Length of the UTF-8 sequence that starts with byte c (1 for stray bytes).
size_t seq_len(unsigned char c) {
  if (c < 0xC0) return 1;
  if (c < 0xE0) return 2;
  if (c < 0xF0) return 3;
  if (c < 0xF8) return 4;
  if (c < 0xFC) return 5;
  return 6;
}

size_t char_len(const char *s) {
  size_t n = seq_len(static_cast<unsigned char>(*s));
  for (size_t i = 1; i < n; ++i)
    if ((static_cast<unsigned char>(s[i]) & 0xC0) != 0x80) return i;
  return n;
}

// One character of name against the set starting after '['. Returns the
// position after ']' and whether it matched; null when the set is not closed
// (then '[' is an ordinary character).
const char *match_set(const char *p, const char *c, size_t clen, bool icase, bool &hit) {
  bool neg = false;
  if (*p == '!' || *p == '^') {
    neg = true;
    ++p;
  }
  auto fold = [icase](unsigned long v) { return icase && v >= 'A' && v <= 'Z' ? v + 32 : v; };
  auto value = [](const char *s, size_t n) {
    unsigned long v = 0;
    for (size_t i = 0; i < n; ++i) v = (v << 8) | static_cast<unsigned char>(s[i]);
    return v;
  };
  const unsigned long cv = fold(value(c, clen));
  bool in = false;
  bool first = true;
  while (*p && (*p != ']' || first)) {
    first = false;
    size_t l1 = char_len(p);
    unsigned long lo = fold(value(p, l1));
    p += l1;
    unsigned long hi = lo;
    if (p[0] == '-' && p[1] && p[1] != ']') {
      size_t l2 = char_len(p + 1);
      hi = fold(value(p + 1, l2));
      p += 1 + l2;
    }
    if (cv >= lo && cv <= hi) in = true;
  }
  if (*p != ']') return nullptr;
  hit = in != neg;
  return p + 1;
}

bool match(const char *p, const char *n, bool icase) {
  // Iterative matcher with one backtrack point for the last '*'.
  const char *star_p = nullptr, *star_n = nullptr;
  while (*n) {
    if (*p == '*') {
      while (*p == '*') ++p;
      if (!*p) return true;
      star_p = p;
      star_n = n;
      continue;
    }
    const size_t nl = char_len(n);
    bool ok = false;
    const char *next = nullptr;
    if (*p == '?') {
      ok = true;
      next = p + 1;
    } else if (*p == '[') {
      bool hit = false;
      next = match_set(p + 1, n, nl, icase, hit);
      if (next) ok = hit;
    }
    if (!next && *p) {
      const size_t pl = char_len(p);
      next = p + pl;
      if (pl == nl) {
        ok = true;
        for (size_t i = 0; i < nl && ok; ++i) {
          int a = static_cast<unsigned char>(p[i]), b = static_cast<unsigned char>(n[i]);
          if (icase) {
            a = ascii_lower(a);
            b = ascii_lower(b);
          }
          ok = a == b;
        }
      }
    }
    if (ok) {
      p = next;
      n += nl;
      continue;
    }
    if (!star_p) return false;
    p = star_p;
    star_n += char_len(star_n);
    n = star_n;
  }
  while (*p == '*') ++p;
  return !*p;
}

bool is_sep(char c) { return c == native_sep() || (native_sep() == '\\' && c == '/'); }

int mkdirs(const std::string &path, unsigned mode) {
  if (make_dir(path.c_str(), mode) == 0) return 0;
  int err = errno;
  const uint32_t a = utf8_getfileattributes(path.c_str());
  if (a != QZ_INVALID_FILE_ATTRIBUTES) {
    if (a & QZ_FILE_ATTRIBUTE_DIRECTORY) return 0;
    errno = EEXIST;
    return -1;
  }
  if (err != ENOENT) {
    errno = err;
    return -1;
  }
  size_t end = path.size();
  while (end > 0 && is_sep(path[end - 1])) --end;
  while (end > 0 && !is_sep(path[end - 1])) --end;
  while (end > 1 && is_sep(path[end - 1])) --end;
  if (end == 0) {
    errno = err;
    return -1;
  }
  std::string parent = path.substr(0, end);
  if (parent.size() == 2 && parent[1] == ':') {  // a drive of its own
    errno = err;
    return -1;
  }
  if (mkdirs(parent, mode) != 0) return -1;
  if (make_dir(path.c_str(), mode) == 0) return 0;
  err = errno;
  const uint32_t again = utf8_getfileattributes(path.c_str());
  if (again != QZ_INVALID_FILE_ATTRIBUTES && (again & QZ_FILE_ATTRIBUTE_DIRECTORY)) return 0;
  errno = err;
  return -1;
}

int rmtree(const std::string &path, int &first_err) {
  const uint32_t a = utf8_getfileattributes(path.c_str());
  if (a == QZ_INVALID_FILE_ATTRIBUTES) {
    if (!first_err) first_err = ENOENT;
    return -1;
  }
  if (a & QZ_FILE_ATTRIBUTE_READONLY) utf8_setfileattributes(path.c_str(), a & ~QZ_FILE_ATTRIBUTE_READONLY);
  if ((a & QZ_FILE_ATTRIBUTE_DIRECTORY) && !(a & QZ_FILE_ATTRIBUTE_REPARSE_POINT)) {
    std::vector<std::string> names;
    if (QZDIR *d = qz_opendir(path.c_str())) {
      while (struct qz_dirent *e = qz_readdir(d)) names.emplace_back(e->d_name);
      qz_closedir(d);
    }
    for (const auto &n : names) rmtree(path + native_sep() + n, first_err);
  }
  int rc;
  if (a & QZ_FILE_ATTRIBUTE_DIRECTORY)
    rc = utf8_rmdir(path.c_str());
  else
    rc = utf8_unlink(path.c_str());
  if (rc != 0 && !first_err) first_err = errno;
  return rc;
}

}  // namespace

namespace ll::init {
void close_inherited() noexcept { ll::paths::close_inherited(); }
}  // namespace ll::init

extern "C" {

LL_API int qzfclose(FILE *fp) noexcept {
  if (!fp) {
    errno = EINVAL;
    return EOF;
  }
  ll::forget_fd_mark(fileno(fp));  // a later descriptor of that number starts unmarked
  return std::fclose(fp);
}


LL_API int fmatch_case(const char *pattern, const char *name, int icase) noexcept {
  if (!pattern || !name) return 0;
  return match(pattern, name, icase != 0) ? 1 : 0;
}

LL_API int fmatch(const char *pattern, const char *name) noexcept {
  return fmatch_case(pattern, name, names_fold_case() ? 1 : 0);
}

LL_API char *fullpath2(const char *name, char *buf, size_t size, int mode) noexcept {
  if (!name || !buf) {
    errno = EINVAL;
    return nullptr;
  }
  const char sep = native_sep();
  std::string work;
  const size_t nl = std::strlen(name);
  const bool drive_rel = sep == '\\' && nl >= 2 && name[1] == ':' && name[2] != '\\' && name[2] != '/' &&
                         ((name[0] | 32) >= 'a' && (name[0] | 32) <= 'z');
  if (drive_rel) {
    work.assign(nl + kPathBuf + 8, '\0');
    work[0] = 0;
    fullcanon(name, work.data(), nullptr);
    if (!work[0]) {
      errno = ENOENT;
      return nullptr;
    }
  } else {
    char cwd[kPathBuf];
    if (!utf8_getcurrentdirectory(sizeof cwd, cwd)) {
      if (sep == '\\') errno = ENOENT;
      return nullptr;
    }
    size_t cl = std::strlen(cwd);
    if (cl > 1 && cwd[cl - 1] == sep) cwd[--cl] = 0;
    work.assign(nl + cl + 8, '\0');
    fullcanon_dirsep(name, work.data(), cwd, sep);
  }
  std::string out(work.c_str());
  if (sep == '\\') {
    if (out == "/") out = "\\";
    if (out.size() == 2 && out[1] == ':') out += '\\';
    std::string net;
    if ((mode & QZ_FULLPATH_NETWORK) && out.size() >= 2 && out[1] == ':' && network_name(out[0], net)) {
      while (!net.empty() && net.back() == '\\') net.pop_back();
      out = net + (out.size() > 3 ? out.substr(2) : std::string("\\"));
    }
  }
  if (out.size() + 1 > size) {
    errno = ERANGE;
    return nullptr;
  }
  std::memcpy(buf, out.c_str(), out.size() + 1);
  return buf;
}

LL_API char *fullpath(const char *name, char *buf, size_t size) noexcept { return fullpath2(name, buf, size, 0); }

LL_API int qz_mkdirs(const char *path, unsigned int mode) noexcept {
  if (!path || !*path) {
    errno = ENOENT;
    return -1;
  }
  return mkdirs(path, mode);
}

LL_API int qz_rmtree(const char *path) noexcept {
  if (!path || !*path) {
    errno = ENOENT;
    return -1;
  }
  int first = 0;
  rmtree(path, first);
  if (first) {
    errno = first;
    return -1;
  }
  return 0;
}

}  // extern "C"

// Pieces of the UTF-8 calls that are the same everywhere.
namespace {
struct DisplayBuffer {
  char text[6144];
};
}  // namespace

extern "C" {

LL_API int utf8_stat(const char *path, struct ll_stat64 *st) noexcept { return ll_stat64(path, st); }

LL_API const char *syscalls_utf8dec(const char *s) noexcept {
  const int saved = errno;
  char *buf = ll::thread_area<DisplayBuffer>()->text;
  ansi_mbs_tolerance(buf, s ? s : "", sizeof(DisplayBuffer::text));
  errno = saved;
  return buf;
}

LL_API int qz_diskusage(const char *path, uint64_t *total, uint64_t *avail, uint64_t *used) noexcept {
  struct ll_statfs fs;
  if (ll_statfs(path, &fs) != 0) return -1;
  const uint64_t unit = static_cast<uint64_t>(fs.f_bsize);
  if (total) *total = fs.f_blocks * unit;
  if (avail) *avail = fs.f_bavail * unit;
  if (used) *used = (fs.f_blocks - fs.f_bfree) * unit;
  return 0;
}

}  // extern "C"

// Path syntax: joining, absolute form, taking paths apart (canonical form
// itself is in canon.cpp).
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
    const bool letter = (name[0] | 32) >= 'a' && (name[0] | 32) <= 'z';
    if (colon == name + 1 && letter && name[2] != sep && name[2] != '/' && name[2] != 0) {
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

// The UTF-8 file-system calls on POSIX: names are UTF-8 already, so each
// routine is the POSIX operation with the meaning its Windows namesake has.
#include <liblocal/fileio.h>
#include <liblocal/wfile.h>

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "paths/paths.h"

#undef lstat64
#undef stat64

using namespace ll::paths;

namespace {

constexpr uint64_t kEpochDiff = 116444736000000000ull;  // 1601 to 1970 in 100 ns

void put_time(uint32_t out[2], const struct timespec &ts) {
  uint64_t v = static_cast<uint64_t>(ts.tv_sec) * 10000000ull + static_cast<uint64_t>(ts.tv_nsec) / 100 + kEpochDiff;
  out[0] = static_cast<uint32_t>(v);
  out[1] = static_cast<uint32_t>(v >> 32);
}

const char *base_of(const char *path) {
  const char *s = std::strrchr(path, '/');
  return s ? s + 1 : path;
}

uint32_t attributes(const char *path, const struct stat &lst, uint32_t *tag) {
  uint32_t a = 0;
  struct stat st = lst;
  if (S_ISLNK(lst.st_mode)) {
    a |= QZ_FILE_ATTRIBUTE_REPARSE_POINT;
    if (tag) *tag = QZ_IO_REPARSE_TAG_SYMLINK;
    if (stat(path, &st) != 0) st = lst;
  }
  if (S_ISDIR(st.st_mode)) a |= QZ_FILE_ATTRIBUTE_DIRECTORY;
  if (!(st.st_mode & S_IWUSR)) a |= QZ_FILE_ATTRIBUTE_READONLY;
  const char *b = base_of(path);
  if (b[0] == '.' && std::strcmp(b, ".") != 0 && std::strcmp(b, "..") != 0) a |= QZ_FILE_ATTRIBUTE_HIDDEN;
  if (!a) a = QZ_FILE_ATTRIBUTE_NORMAL;
  return a;
}

bool fill(const std::string &full, const char *name, qz_finddata_t *rec) {
  struct stat st;
  if (lstat(full.c_str(), &st) != 0) return false;
  std::memset(rec, 0, sizeof *rec);
  rec->attributes = attributes(full.c_str(), st, &rec->reserved0);
  put_time(rec->creation_time, st.st_ctim);
  put_time(rec->access_time, st.st_atim);
  put_time(rec->write_time, st.st_mtim);
  const uint64_t size = S_ISDIR(st.st_mode) ? 0 : static_cast<uint64_t>(st.st_size);
  rec->size_high = static_cast<uint32_t>(size >> 32);
  rec->size_low = static_cast<uint32_t>(size);
  std::strncpy(rec->name, name, sizeof rec->name - 1);
  return true;
}

struct Search {
  DIR *dir = nullptr;  // null for a search of one name
  std::string dirpath;
  std::string pattern;
};

bool next_match(Search *s, qz_finddata_t *rec) {
  while (struct dirent *e = readdir(s->dir)) {
    if (!fmatch_case(s->pattern.c_str(), e->d_name, 0)) continue;
    if (fill(s->dirpath + "/" + e->d_name, e->d_name, rec)) return true;
  }
  return false;
}

// Mount table: the entry whose directory is the longest prefix of path.
bool mount_of(const std::string &path, std::string &dir, std::string &dev, std::string &type) {
  FILE *f = std::fopen("/proc/self/mounts", "r");
  if (!f) return false;
  char line[4 * kPathBuf];
  size_t best = 0;
  bool found = false;
  auto unescape = [](const char *s) {
    std::string out;
    for (; *s; ++s) {
      if (s[0] == '\\' && s[1] >= '0' && s[1] <= '7' && s[2] && s[3]) {
        out += static_cast<char>((s[1] - '0') * 64 + (s[2] - '0') * 8 + (s[3] - '0'));
        s += 3;
      } else {
        out += *s;
      }
    }
    return out;
  };
  while (std::fgets(line, sizeof line, f)) {
    char d[kPathBuf], m[kPathBuf], t[256];
    if (std::sscanf(line, "%4095s %4095s %255s", d, m, t) != 3) continue;
    std::string md = unescape(m);
    const bool under = md == "/" || path == md || (path.compare(0, md.size(), md) == 0 && path[md.size()] == '/');
    if (under && md.size() >= best) {
      best = md.size();
      dir = md;
      dev = unescape(d);
      type = t;
      found = true;
    }
  }
  std::fclose(f);
  return found;
}

std::string absolute(const char *path) {
  char buf[kPathBuf];
  if (realpath(path, buf)) return buf;
  if (fullpath(path, buf, sizeof buf)) return buf;
  return path;
}

uint32_t clip(unsigned long long v) { return v > 0xFFFFFFFFull ? 0xFFFFFFFFu : static_cast<uint32_t>(v); }

unsigned copy_len(const std::string &s, unsigned size, char *buf) {
  if (s.size() + 1 > size) return static_cast<unsigned>(s.size() + 1);
  std::memcpy(buf, s.c_str(), s.size() + 1);
  return static_cast<unsigned>(s.size());
}

}  // namespace

extern "C" {

LL_API intptr_t utf8_findfirstex(const char *pattern, qz_finddata_t *rec, int) noexcept {
  if (!pattern || !rec) {
    errno = EINVAL;
    return -1;
  }
  std::string p = pattern;
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  size_t cut = p.rfind('/');
  std::string dir = cut == std::string::npos ? "." : (cut == 0 ? "/" : p.substr(0, cut));
  std::string comp = cut == std::string::npos ? p : p.substr(cut + 1);
  auto *s = new (std::nothrow) Search;
  if (!s) {
    errno = ENOMEM;
    return -1;
  }
  if (comp.find_first_of("*?[") == std::string::npos) {
    // One particular name: POSIX names are exact, so this is a lookup. "."
    // and ".." answer the directory's own name.
    std::string name = comp;
    if (comp == "." || comp == ".." || p == "/") {
      std::string abs = absolute(p.c_str());
      name = abs == "/" ? "/" : base_of(abs.c_str());
    }
    if (!fill(p, name.c_str(), rec)) {
      delete s;
      return -1;
    }
    return reinterpret_cast<intptr_t>(s);
  }
  s->dir = opendir(dir.c_str());
  if (!s->dir) {
    delete s;
    return -1;
  }
  s->dirpath = dir;
  s->pattern = comp == "*.*" ? "*" : comp;
  if (!next_match(s, rec)) {
    closedir(s->dir);
    delete s;
    errno = ENOENT;
    return -1;
  }
  return reinterpret_cast<intptr_t>(s);
}

LL_API intptr_t utf8_findfirst(const char *pattern, qz_finddata_t *rec) noexcept {
  return utf8_findfirstex(pattern, rec, 0);
}

LL_API int utf8_findnext(intptr_t handle, qz_finddata_t *rec) noexcept {
  auto *s = reinterpret_cast<Search *>(handle);
  if (!s || handle == -1 || !rec || !s->dir) return 0;
  return next_match(s, rec) ? 1 : 0;
}

LL_API int utf8_findclose(intptr_t handle) noexcept {
  auto *s = reinterpret_cast<Search *>(handle);
  if (!s || handle == -1) return 0;
  if (s->dir) closedir(s->dir);
  delete s;
  return 1;
}

LL_API unsigned int utf8_getwindowsdirectory(char *buf, unsigned int size) noexcept {
  return buf ? copy_len("/", size, buf) : 0;
}

LL_API unsigned int utf8_getsystemdirectory(char *buf, unsigned int size) noexcept {
  return buf ? copy_len("/usr/bin", size, buf) : 0;
}

LL_API unsigned int utf8_gettemppath(unsigned int size, char *buf) noexcept {
  const char *t = std::getenv("TMPDIR");
  std::string d = (t && *t) ? t : "/tmp";
  if (d.back() != '/') d += '/';
  return buf ? copy_len(d, size, buf) : static_cast<unsigned>(d.size() + 1);
}

LL_API unsigned int utf8_gettempfilename(const char *dir, const char *prefix, unsigned int unique,
                                         char *out) noexcept {
  if (!dir || !out) {
    errno = EINVAL;
    return 0;
  }
  std::string base = dir;
  if (base.empty() || base.back() != '/') base += '/';
  base.append(prefix ? prefix : "", prefix ? strnlen(prefix, 3) : 0);
  auto name = [&](unsigned n) {
    char hex[16];
    std::snprintf(hex, sizeof hex, "%X.tmp", n & 0xFFFF);
    return base + hex;
  };
  if (unique) {
    std::string n = name(unique);
    if (n.size() + 1 > 260) {
      errno = ENAMETOOLONG;
      return 0;
    }
    std::memcpy(out, n.c_str(), n.size() + 1);
    return unique & 0xFFFF;
  }
  unsigned start = (static_cast<unsigned>(getpid()) ^ static_cast<unsigned>(std::time(nullptr))) & 0xFFFF;
  for (unsigned i = 0; i < 0x10000; ++i) {
    unsigned n = (start + i) & 0xFFFF;
    if (!n) continue;
    std::string cand = name(n);
    if (cand.size() + 1 > 260) {
      errno = ENAMETOOLONG;
      return 0;
    }
    int fd = open(cand.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600);
    if (fd >= 0) {
      close(fd);
      std::memcpy(out, cand.c_str(), cand.size() + 1);
      return n;
    }
    if (errno != EEXIST) return 0;
  }
  errno = EEXIST;
  return 0;
}

LL_API int utf8_setcurrentdirectory(const char *path) noexcept { return path && chdir(path) == 0 ? 1 : 0; }

LL_API int utf8_chdir(const char *path) noexcept { return utf8_setcurrentdirectory(path) ? 0 : -1; }

LL_API unsigned int utf8_getcurrentdirectory(unsigned int size, char *buf) noexcept {
  char tmp[kPathBuf];
  if (!getcwd(tmp, sizeof tmp)) return 0;
  return buf ? copy_len(tmp, size, buf) : static_cast<unsigned>(std::strlen(tmp) + 1);
}

LL_API char *utf8_getcwd(char *buf, int size) noexcept {
  if (size <= 0) {
    errno = EINVAL;
    return nullptr;
  }
  return getcwd(buf, static_cast<size_t>(size));  // a null buf gets a size-byte allocation
}

LL_API int utf8_setfileattributes(const char *path, uint32_t attrs) noexcept {
  struct stat st;
  if (!path || stat(path, &st) != 0) return 0;
  mode_t m = st.st_mode & 07777;
  if (attrs & QZ_FILE_ATTRIBUTE_READONLY)
    m &= static_cast<mode_t>(~(S_IWUSR | S_IWGRP | S_IWOTH));
  else
    m |= S_IWUSR;
  return chmod(path, m) == 0 ? 1 : 0;
}

LL_API uint32_t utf8_getfileattributes(const char *path) noexcept {
  struct stat st;
  if (!path || lstat(path, &st) != 0) return QZ_INVALID_FILE_ATTRIBUTES;
  return attributes(path, st, nullptr);
}

LL_API int utf8_setfilesecurity(const char *path, uint32_t, void *) noexcept {
  return path && access(path, F_OK) == 0 ? 1 : 0;
}

LL_API int utf8_unlink(const char *path) noexcept { return path ? unlink(path) : (errno = EINVAL, -1); }
LL_API int utf8_rmdir(const char *path) noexcept { return path ? rmdir(path) : (errno = EINVAL, -1); }
LL_API int utf8_chmod(const char *path, int mode) noexcept {
  return path ? chmod(path, static_cast<mode_t>(mode)) : (errno = EINVAL, -1);
}
LL_API int utf8_mkdir(const char *path) noexcept { return path ? mkdir(path, 0777) : (errno = EINVAL, -1); }
LL_API int utf8_createdirectory(const char *path, void *) noexcept { return utf8_mkdir(path) == 0 ? 1 : 0; }

LL_API int utf8_movefileex(const char *oldname, const char *newname, uint32_t flags) noexcept {
  if (!oldname || !newname) {
    errno = EINVAL;
    return 0;
  }
  if (flags & QZ_MOVEFILE_REPLACE_EXISTING) return rename(oldname, newname) == 0 ? 1 : 0;
#if defined(SYS_renameat2)
  // RENAME_NOREPLACE: the check and the move are one step.
  if (syscall(SYS_renameat2, AT_FDCWD, oldname, AT_FDCWD, newname, 1u) == 0) return 1;
  if (errno != EINVAL && errno != ENOSYS) return 0;
#endif
  struct stat st;
  if (lstat(newname, &st) == 0) {
    errno = EEXIST;
    return 0;
  }
  return rename(oldname, newname) == 0 ? 1 : 0;
}

LL_API void *utf8_createfile(const char *path, uint32_t acc, uint32_t, void *, uint32_t disposition, uint32_t,
                             void *) noexcept {
  if (!path) {
    errno = EINVAL;
    return reinterpret_cast<void *>(-1);
  }
  int fl = O_CLOEXEC;
  const bool r = acc & QZ_GENERIC_READ, w = acc & QZ_GENERIC_WRITE;
  fl |= (r && w) ? O_RDWR : w ? O_WRONLY : O_RDONLY;
  switch (disposition) {
    case QZ_CREATE_NEW: fl |= O_CREAT | O_EXCL; break;
    case QZ_CREATE_ALWAYS: fl |= O_CREAT | O_TRUNC; break;
    case QZ_OPEN_EXISTING: break;
    case QZ_OPEN_ALWAYS: fl |= O_CREAT; break;
    case QZ_TRUNCATE_EXISTING: fl |= O_TRUNC; break;
    default: errno = EINVAL; return reinterpret_cast<void *>(-1);
  }
  int fd = open(path, fl, 0666);
  return reinterpret_cast<void *>(static_cast<intptr_t>(fd));
}

LL_API int utf8_access(const char *path) noexcept {
  if (!path) {
    errno = EINVAL;
    return -1;
  }
  std::string p = path;
  if (p.size() > 1 && p.back() == '/') p.pop_back();
  struct stat st;
  return lstat(p.c_str(), &st) == 0 ? 0 : -1;
}

LL_API int utf8_getvolumeinfo(const char *root, char *name, uint32_t namesize, uint32_t *serial, uint32_t *maxcomp,
                              uint32_t *flags, char *fsname, uint32_t fsnamesize) noexcept {
  struct statvfs v;
  if (!root || statvfs(root, &v) != 0) return 0;
  if (name && namesize) name[0] = 0;
  const uint64_t fsid = static_cast<uint64_t>(v.f_fsid);
  if (serial) *serial = static_cast<uint32_t>(fsid ^ (fsid >> 32));
  if (maxcomp) *maxcomp = static_cast<uint32_t>(v.f_namemax);
  // Case-sensitive search, case-preserved names, Unicode names; read-only volume.
  if (flags) *flags = 0x1u | 0x2u | 0x4u | ((v.f_flag & ST_RDONLY) ? 0x80000u : 0u);
  if (fsname && fsnamesize) {
    std::string dir, dev, type;
    if (!mount_of(absolute(root), dir, dev, type)) type = "unknown";
    std::strncpy(fsname, type.c_str(), fsnamesize - 1);
    fsname[fsnamesize - 1] = 0;
  }
  return 1;
}

LL_API int utf8_getvolumepathname(const char *path, char *out, uint32_t size) noexcept {
  if (!path || !out) {
    errno = EINVAL;
    return -1;
  }
  std::string dir, dev, type;
  if (!mount_of(absolute(path), dir, dev, type)) dir = "/";
  if (dir.back() != '/') dir += '/';
  if (dir.size() + 1 > size) {
    errno = ERANGE;
    return -1;
  }
  std::memcpy(out, dir.c_str(), dir.size() + 1);
  return 0;
}

LL_API int utf8_getdiskfreespace(const char *root, uint32_t *spc, uint32_t *bps, uint32_t *freec,
                                 uint32_t *total) noexcept {
  struct statvfs v;
  if (!root || statvfs(root, &v) != 0) return 0;
  if (spc) *spc = 1;
  if (bps) *bps = clip(v.f_frsize);
  if (freec) *freec = clip(v.f_bavail);
  if (total) *total = clip(v.f_blocks);
  return 1;
}

LL_API int utf8_getpathtarget(const char *path, char *out, uint32_t size) noexcept {
  if (!path || !out || !size) {
    errno = EINVAL;
    return -1;
  }
  ssize_t n = readlink(path, out, size);
  if (n < 0) return -1;
  if (static_cast<uint32_t>(n) >= size) {
    out[size - 1] = 0;
    errno = ERANGE;
    return -1;
  }
  out[n] = 0;
  return 0;
}

LL_API int utf8_getmntptvname(const char *mountpoint, char *out, uint32_t size) noexcept {
  if (!mountpoint || !out || !size) {
    errno = EINVAL;
    return 0;
  }
  std::string want = absolute(mountpoint);
  std::string dir, dev, type;
  if (!mount_of(want, dir, dev, type) || dir != want) {
    errno = ENOENT;
    return 0;
  }
  if (dev.size() + 1 > size) {
    errno = ERANGE;
    return 0;
  }
  std::memcpy(out, dev.c_str(), dev.size() + 1);
  return 1;
}

LL_API intptr_t utf8_findfirstvolmntpt(const char *, char *, uint32_t) noexcept {
  errno = ENOENT;
  return 0;
}

LL_API int utf8_findnextvolmntpt(intptr_t, char *, uint32_t) noexcept {
  errno = ENOENT;
  return 0;
}

LL_API int utf8_findvolmntptclose(intptr_t) noexcept {
  errno = ENOENT;
  return 0;
}

}  // extern "C"

// The file layer on POSIX: the system's own calls behind the library's
// records, and the descriptors inherited at start.
#include <liblocal/fileio.h>
#include <liblocal/path.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "frame/output.h"
#include "paths/paths.h"
#include "paths/posix/statrec.h"
#include "frame/fault.h"

// The real system calls behind the names this library maps.
#undef lockf
#undef mkstemp
#undef mkdtemp
#undef statfs
#undef fstatfs

struct qz_dir {
  DIR *d;
  struct qz_dirent ent;
};

namespace {

// Descriptors above standard error that were open when the library was
// loaded, i.e. inherited across exec: written once, before main.
constexpr int kMaxInherited = 256;
struct Inherited {
  int fd;
  dev_t dev;
  ino_t ino;
};
Inherited g_inherited[kMaxInherited];
int g_inherited_count = 0;

__attribute__((constructor)) void note_inherited() {
  long max = sysconf(_SC_OPEN_MAX);
  if (max < 0 || max > 65536) max = 65536;
  for (int fd = 3; fd < max && g_inherited_count < kMaxInherited; ++fd) {
    struct stat st;
    if (fstat(fd, &st) == 0) g_inherited[g_inherited_count++] = {fd, st.st_dev, st.st_ino};
  }
}

using ll::paths::fill;

void fill_fs(const struct statfs &s, struct ll_statfs *out) {
  std::memset(out, 0, sizeof *out);
  out->f_type = static_cast<int64_t>(s.f_type);
  out->f_frsize = static_cast<int64_t>(s.f_frsize ? s.f_frsize : s.f_bsize);
  out->f_bsize = out->f_frsize;
  out->f_blocks = s.f_blocks;
  out->f_bfree = s.f_bfree;
  out->f_bavail = s.f_bavail;
  out->f_files = s.f_files;
  out->f_ffree = s.f_ffree;
  static_assert(sizeof s.f_fsid == 2 * sizeof(uint32_t));
  std::memcpy(out->f_fsid, &s.f_fsid, sizeof out->f_fsid);
  out->f_namelen = static_cast<int64_t>(s.f_namelen);
}

}  // namespace

namespace ll::paths {

void close_inherited() noexcept {
  for (int i = 0; i < g_inherited_count; ++i) {
    struct stat st;
    const Inherited &e = g_inherited[i];
    if (fstat(e.fd, &st) == 0 && st.st_dev == e.dev && st.st_ino == e.ino) close(e.fd);
  }
  g_inherited_count = 0;
}

int make_dir(const char *path, unsigned mode) noexcept { return mkdir(path, static_cast<mode_t>(mode)); }

bool network_name(char, std::string &) noexcept { return false; }

bool names_fold_case() noexcept { return false; }

}  // namespace ll::paths

extern "C" {

LL_API FILE *qzfopen(const char *name, const char *mode) noexcept {
  if (!name || !mode) {
    errno = EINVAL;
    return nullptr;
  }
  if (LL_FAULT(open)) return nullptr;
  return std::fopen(name, mode);
}

LL_API int ll_open64(const char *name, int flags, ...) noexcept {
  unsigned mode = 0;
  if (flags & O_CREAT) {
    va_list ap;
    va_start(ap, flags);
    mode = va_arg(ap, unsigned);
    va_end(ap);
  }
  if (!name) {
    errno = EINVAL;
    return -1;
  }
  if (LL_FAULT(open)) return -1;
  return open(name, flags, static_cast<mode_t>(mode));
}

LL_API int ll_creat64(const char *name, unsigned int mode) noexcept {
  return ll_open64(name, O_WRONLY | O_CREAT | O_TRUNC, mode);
}

LL_API int qzclose(int fd) noexcept {
  ll::forget_fd_mark(fd);
  return close(fd);
}

LL_API int64_t ll_lseek64(int fd, int64_t offset, int whence) noexcept {
  return static_cast<int64_t>(lseek(fd, static_cast<off_t>(offset), whence));
}

LL_API int ll_stat64(const char *name, struct ll_stat64 *st) noexcept {
  struct stat s;
  if (!name || !st) {
    errno = EINVAL;
    return -1;
  }
  if (stat(name, &s) != 0) return -1;
  fill(s, st);
  return 0;
}

LL_API int qzstat(const char *name, struct ll_stat64 *st) noexcept { return ll_stat64(name, st); }

LL_API int ll_lstat64(const char *name, struct ll_stat64 *st) noexcept {
  struct stat s;
  if (!name || !st) {
    errno = EINVAL;
    return -1;
  }
  if (lstat(name, &s) != 0) return -1;
  fill(s, st);
  return 0;
}

LL_API int ll_fstat64(int fd, struct ll_stat64 *st) noexcept {
  struct stat s;
  if (!st) {
    errno = EINVAL;
    return -1;
  }
  if (fstat(fd, &s) != 0) return -1;
  fill(s, st);
  return 0;
}

LL_API int ll_lockf(int fd, int cmd, int64_t len) noexcept {
  int rc = lockf(fd, cmd, static_cast<off_t>(len));
  if (rc != 0 && cmd == F_TEST && errno == EACCES) errno = EAGAIN;
  if (rc != 0 && cmd == F_TLOCK && errno == EACCES) errno = EAGAIN;
  return rc;
}

LL_API QZDIR *qz_opendir(const char *name) noexcept {
  if (!name) {
    errno = EINVAL;
    return nullptr;
  }
  DIR *d = LL_FAULT(open) ? nullptr : opendir(name);
  if (!d) return nullptr;
  auto *q = LL_FAULT(alloc) ? nullptr : new (std::nothrow) qz_dir;
  if (!q) {
    closedir(d);
    errno = ENOMEM;
    return nullptr;
  }
  q->d = d;
  return q;
}

LL_API struct qz_dirent *qz_readdir(QZDIR *dir) noexcept {
  if (!dir) {
    errno = EBADF;
    return nullptr;
  }
  while (struct dirent *e = readdir(dir->d)) {
    if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
    dir->ent.d_ino = static_cast<uint64_t>(e->d_ino);
    switch (e->d_type) {
      case DT_DIR: dir->ent.d_type = QZ_DT_DIR; break;
      case DT_REG: dir->ent.d_type = QZ_DT_REG; break;
      case DT_LNK: dir->ent.d_type = QZ_DT_LNK; break;
      default: dir->ent.d_type = QZ_DT_UNKNOWN; break;
    }
    std::strncpy(dir->ent.d_name, e->d_name, sizeof dir->ent.d_name - 1);
    dir->ent.d_name[sizeof dir->ent.d_name - 1] = 0;
    return &dir->ent;
  }
  return nullptr;
}

LL_API void qz_rewinddir(QZDIR *dir) noexcept {
  if (dir) rewinddir(dir->d);
}

LL_API int qz_closedir(QZDIR *dir) noexcept {
  if (!dir) {
    errno = EBADF;
    return -1;
  }
  int rc = closedir(dir->d);
  delete dir;
  return rc;
}

LL_API int ll_mkstemp(char *templ) noexcept {
  if (!templ) {
    errno = EINVAL;
    return -1;
  }
  if (LL_FAULT(open)) return -1;
  return mkstemp(templ);
}

LL_API char *ll_mkdtemp(char *templ) noexcept {
  if (!templ) {
    errno = EINVAL;
    return nullptr;
  }
  return mkdtemp(templ);
}

LL_API int qzrename(const char *oldname, const char *newname) noexcept {
  if (!oldname || !newname) {
    errno = EINVAL;
    return -1;
  }
  return rename(oldname, newname);
}

LL_API char *real_name(const char *name, char *buf, size_t size) noexcept {
  if (!name || !buf) {
    errno = EINVAL;
    return nullptr;
  }
  struct stat st;
  if (lstat(name, &st) != 0) return nullptr;
  char full[ll::paths::kPathBuf];
  if (!fullpath(name, full, sizeof full)) return nullptr;
  if (std::strcmp(full, "/") == 0) {
    errno = EINVAL;
    return nullptr;
  }
  char *slash = std::strrchr(full, '/');
  std::string base = slash + 1;
  std::string parent(full, slash == full ? 1 : static_cast<size_t>(slash - full));
  // The entry of the parent that is this very file: its stored spelling.
  if (DIR *d = opendir(parent.c_str())) {
    std::string found;
    while (struct dirent *e = readdir(d)) {
      if (std::strcmp(e->d_name, base.c_str()) == 0) {
        found.clear();
        break;
      }
      if (static_cast<ino_t>(e->d_ino) == st.st_ino && ll::paths::equal_nocase(e->d_name, base.c_str()))
        found = e->d_name;
    }
    closedir(d);
    if (!found.empty()) base = found;
  }
  if (base.size() + 1 > size) {
    errno = ERANGE;
    return nullptr;
  }
  std::memcpy(buf, base.c_str(), base.size() + 1);
  return buf;
}

LL_API void qz_close_most(void) noexcept {
#if defined(SYS_close_range)
  if (syscall(SYS_close_range, 3u, ~0u, 0u) == 0) return;
#endif
  long max = sysconf(_SC_OPEN_MAX);
  if (max < 0 || max > 65536) max = 65536;
  for (int fd = 3; fd < max; ++fd) close(fd);
}

LL_API int ll_statfs(const char *path, struct ll_statfs *buf) noexcept {
  struct statfs s;
  if (!path || !buf) {
    errno = EINVAL;
    return -1;
  }
  if (statfs(path, &s) != 0) return -1;
  fill_fs(s, buf);
  return 0;
}

LL_API int ll_fstatfs(int fd, struct ll_statfs *buf) noexcept {
  struct statfs s;
  if (!buf) {
    errno = EINVAL;
    return -1;
  }
  if (fstatfs(fd, &s) != 0) return -1;
  fill_fs(s, buf);
  return 0;
}

}  // extern "C"

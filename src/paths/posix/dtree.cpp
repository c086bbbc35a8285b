// The walker on POSIX: every directory opened with openat relative to its
// parent and inspected with fstatat, so names of any total length work and
// nothing is resolved twice.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <liblocal/dtree.h>

#include <cerrno>
#include <cstring>

#include "paths/dtree_os.h"
#include "paths/posix/statrec.h"
#include "frame/fault.h"

struct ll::dtree::OsDir {
  int fd;
};

namespace ll::dtree {

namespace {
OsDir *wrap(int fd, int &err) noexcept {
  if (fd < 0) {
    err = errno;
    return nullptr;
  }
  OsDir *d = LL_FAULT(alloc) ? nullptr : new (std::nothrow) OsDir{fd};
  if (!d) {
    ::close(fd);
    err = ENOMEM;
  }
  return d;
}
}  // namespace

OsDir *open_root(const std::string &path, int &err) noexcept {
  return wrap(LL_FAULT(open) ? -1 : ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC), err);
}

OsDir *open_child(OsDir *parent, const Item &item, const std::string &, bool follow, int &err) noexcept {
  int fl = O_RDONLY | O_DIRECTORY | O_CLOEXEC | (follow ? 0 : O_NOFOLLOW);
  return wrap(LL_FAULT(open) ? -1 : ::openat(parent->fd, item.name.c_str(), fl), err);
}

bool list(OsDir *dir, std::vector<Item> &out, int &err) noexcept {
  // The stream gets its own descriptor (close-on-exec from birth): the
  // directory's stays usable for openat.
  int fd = LL_FAULT(open) ? -1 : ::fcntl(dir->fd, F_DUPFD_CLOEXEC, 0);
  if (fd < 0) {
    err = errno;
    return false;
  }
  DIR *d = LL_FAULT(alloc) ? nullptr : ::fdopendir(fd);
  if (!d) {
    err = errno;
    ::close(fd);
    return false;
  }
  ::rewinddir(d);
  bool ok = true;
  try {
    for (;;) {
      errno = 0;
      struct dirent *e = LL_FAULT(io) ? nullptr : ::readdir(d);
      if (!e) {
        if (errno != 0) {
          err = errno;
          ok = false;
        }
        break;
      }
      const char *n = e->d_name;
      if (n[0] == '.' && (n[1] == '\0' || (n[1] == '.' && n[2] == '\0'))) continue;
      out.emplace_back();
      out.back().name = n;
    }
  } catch (...) {
    err = ENOMEM;
    ok = false;
  }
  ::closedir(d);
  return ok;
}

int inspect(OsDir *dir, Item &item, const std::string &, bool follow) noexcept {
  struct stat s;
  if (::fstatat(dir->fd, item.name.c_str(), &s, follow ? 0 : AT_SYMLINK_NOFOLLOW) != 0) return errno;
  ll::paths::fill(s, &item.st);
  item.have_st = true;
  return 0;
}

int stat_root(const std::string &path, struct ll_stat64 &st, unsigned &reparse) noexcept {
  struct stat s;
  reparse = 0;
  if (::stat(path.c_str(), &s) != 0) return errno;
  ll::paths::fill(s, &st);
  return 0;
}

void identity(OsDir *, const struct ll_stat64 &st, uint64_t &dev, uint64_t &ino) noexcept {
  dev = st.st_dev;
  ino = st.st_ino;
}

void close(OsDir *dir) noexcept {
  if (!dir) return;
  ::close(dir->fd);
  delete dir;
}

char separator() noexcept { return '/'; }

int kind_of(const struct ll_stat64 &st, unsigned) noexcept {
  switch (st.st_mode & S_IFMT) {
    case S_IFREG: return QZ_DTK_FILE;
    case S_IFDIR: return QZ_DTK_DIR;
    case S_IFLNK: return QZ_DTK_LINK;
    default: return QZ_DTK_SPECIAL;
  }
}

}  // namespace ll::dtree

// The file layer on Windows: runtime descriptors opened with UTF-16 names,
// byte-range locks, directory streams over the find calls, free space.
#include <liblocal/fileio.h>
#include <liblocal/path.h>
#include <liblocal/syserr.h>
#include <liblocal/utf8.h>
#include <liblocal/wfile.h>

#include <direct.h>
#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <new>
#include <string>

#include "frame/output.h"
#include "paths/win32/wpaths.h"
#include "frame/fault.h"

using namespace ll::paths;
using namespace ll::paths::win;

struct qz_dir {
  intptr_t h = -1;
  std::string pattern;
  qz_finddata_t rec;
  bool pending = false;  // rec holds an entry not yet returned
  struct qz_dirent ent;
};

namespace {

std::wstring wide(const char *s, bool &ok) {
  WideName n(s);
  ok = n.ok;
  return ok ? std::wstring(n.w) : std::wstring();
}

// The runtime's stat refuses trailing separators except at a root.
std::wstring stat_name(const char *name, bool &ok) {
  std::wstring w = wide(name, ok);
  while (w.size() > 1 && (w.back() == L'\\' || w.back() == L'/') && !(w.size() == 3 && w[1] == L':'))
    w.pop_back();
  return w;
}

void fill(const struct _stat64 &s, struct ll_stat64 *st) {
  std::memset(st, 0, sizeof *st);
  st->st_dev = static_cast<uint64_t>(s.st_dev);
  st->st_ino = static_cast<uint64_t>(s.st_ino);
  st->st_mode = static_cast<uint32_t>(s.st_mode);
  st->st_nlink = static_cast<uint32_t>(s.st_nlink);
  st->st_uid = static_cast<uint32_t>(s.st_uid);
  st->st_gid = static_cast<uint32_t>(s.st_gid);
  st->st_rdev = static_cast<uint64_t>(s.st_rdev);
  st->st_size = static_cast<int64_t>(s.st_size);
  st->st_blksize = 4096;
  st->st_blocks = (st->st_size + 511) / 512;
#if defined(st_atime)
  st->st_atim.tv_sec = s.st_atime;
  st->st_mtim.tv_sec = s.st_mtime;
  st->st_ctim.tv_sec = s.st_ctime;
#else
  st->st_atime = s.st_atime;
  st->st_mtime = s.st_mtime;
  st->st_ctime = s.st_ctime;
#endif
}

bool next_entry(QZDIR *d) {
  if (d->pending) {
    d->pending = false;
    return true;
  }
  return d->h != -1 && utf8_findnext(d->h, &d->rec);
}

int seq = 0;  // varies temporary names within one tick; races only repeat a try

void random_tail(char *x, size_t n) {
  static const char kChars[] = "abcdefghijklmnopqrstuvwxyz0123456789";
  unsigned long long v = (static_cast<unsigned long long>(GetTickCount64()) << 16) ^ GetCurrentProcessId() ^
                         (static_cast<unsigned long long>(++seq) * 0x9E3779B97F4A7C15ull);
  LARGE_INTEGER pc;
  QueryPerformanceCounter(&pc);
  v ^= static_cast<unsigned long long>(pc.QuadPart) * 2654435761ull;
  for (size_t i = 0; i < n; ++i) {
    x[i] = kChars[v % 36];
    v = v / 36 + (v << 7) + 0x632BE59BD9B4E019ull;
  }
}

char *template_tail(char *templ) {
  size_t n = std::strlen(templ);
  if (n < 6 || std::strcmp(templ + n - 6, "XXXXXX") != 0) {
    errno = EINVAL;
    return nullptr;
  }
  return templ + n - 6;
}

int fs_of(const std::wstring &path, struct ll_statfs *buf) {
  wchar_t root[kPathBuf];
  if (!GetVolumePathNameW(path.c_str(), root, kPathBuf)) {
    set_mapped();
    return -1;
  }
  ULARGE_INTEGER avail, total, freeb;
  DWORD spc = 0, bps = 0, fc = 0, tc = 0;
  if (!GetDiskFreeSpaceExW(root, &avail, &total, &freeb)) {
    set_mapped();
    return -1;
  }
  if (!GetDiskFreeSpaceW(root, &spc, &bps, &fc, &tc) || !spc || !bps) {
    spc = 1;
    bps = 4096;
  }
  DWORD serial = 0, maxcomp = 255, flags = 0;
  GetVolumeInformationW(root, nullptr, 0, &serial, &maxcomp, &flags, nullptr, 0);
  std::memset(buf, 0, sizeof *buf);
  const uint64_t unit = static_cast<uint64_t>(spc) * bps;
  buf->f_bsize = buf->f_frsize = static_cast<int64_t>(unit);
  buf->f_blocks = total.QuadPart / unit;
  buf->f_bfree = freeb.QuadPart / unit;
  buf->f_bavail = avail.QuadPart / unit;
  buf->f_fsid[0] = serial;
  buf->f_namelen = maxcomp;
  return 0;
}

}  // namespace

namespace ll::paths {

void close_inherited() noexcept {}  // handles are inherited only when asked for

int make_dir(const char *path, unsigned) noexcept { return utf8_mkdir(path); }

bool names_fold_case() noexcept { return true; }

}  // namespace ll::paths

extern "C" {

LL_API FILE *qzfopen(const char *name, const char *mode) noexcept {
  if (!name || !mode) {
    errno = EINVAL;
    return nullptr;
  }
  bool ok;
  std::wstring w = wide(name, ok);
  if (!ok) {
    errno = EINVAL;
    return nullptr;
  }
  std::string m = mode;
  if (m.find('b') == std::string::npos && m.find('t') == std::string::npos) m += 'b';
  std::wstring wm(m.begin(), m.end());
  if (LL_FAULT(open)) return nullptr;
  return _wfopen(w.c_str(), wm.c_str());
}

LL_API int ll_open64(const char *name, int flags, ...) noexcept {
  unsigned mode = 0;
  if (flags & O_CREAT) {
    va_list ap;
    va_start(ap, flags);
    mode = va_arg(ap, unsigned);
    va_end(ap);
  }
  bool ok;
  std::wstring w = wide(name, ok);
  if (!ok) {
    errno = EINVAL;
    return -1;
  }
  const int pmode = _S_IREAD | ((mode & 0222) ? _S_IWRITE : 0);
  if (LL_FAULT(open)) return -1;
  return _wopen(w.c_str(), flags | _O_BINARY | _O_NOINHERIT, pmode);
}

LL_API int ll_creat64(const char *name, unsigned int mode) noexcept {
  return ll_open64(name, O_WRONLY | O_CREAT | O_TRUNC, mode);
}

LL_API int qzclose(int fd) noexcept {
  ll::forget_fd_mark(fd);
  return _close(fd);
}

LL_API int64_t ll_lseek64(int fd, int64_t offset, int whence) noexcept { return _lseeki64(fd, offset, whence); }

LL_API int ll_stat64(const char *name, struct ll_stat64 *st) noexcept {
  bool ok;
  std::wstring w = stat_name(name, ok);
  if (!ok || !st) {
    errno = EINVAL;
    return -1;
  }
  struct _stat64 s;
  if (_wstat64(w.c_str(), &s) != 0) return -1;
  fill(s, st);
  return 0;
}

LL_API int qzstat(const char *name, struct ll_stat64 *st) noexcept { return ll_stat64(name, st); }
LL_API int ll_lstat64(const char *name, struct ll_stat64 *st) noexcept { return ll_stat64(name, st); }

LL_API int ll_fstat64(int fd, struct ll_stat64 *st) noexcept {
  if (!st) {
    errno = EINVAL;
    return -1;
  }
  struct _stat64 s;
  if (_fstat64(fd, &s) != 0) return -1;
  fill(s, st);
  return 0;
}

LL_API int ll_lockf(int fd, int cmd, int64_t len) noexcept {
  HANDLE h = reinterpret_cast<HANDLE>(_get_osfhandle(fd));
  if (h == INVALID_HANDLE_VALUE) {
    errno = EBADF;
    return -1;
  }
  int64_t start = _lseeki64(fd, 0, SEEK_CUR);
  if (start < 0) return -1;
  if (len < 0) {
    start += len;
    len = -len;
    if (start < 0) {
      errno = EINVAL;
      return -1;
    }
  }
  const uint64_t n = len == 0 ? 0x7FFFFFFFFFFFFFFFull - static_cast<uint64_t>(start) : static_cast<uint64_t>(len);
  OVERLAPPED ov = {};
  ov.Offset = static_cast<DWORD>(start);
  ov.OffsetHigh = static_cast<DWORD>(static_cast<uint64_t>(start) >> 32);
  const DWORD lo = static_cast<DWORD>(n), hi = static_cast<DWORD>(n >> 32);
  switch (cmd) {
    case F_ULOCK:
      if (UnlockFileEx(h, 0, lo, hi, &ov)) return 0;
      set_mapped();
      return -1;
    case F_LOCK:
      if (LockFileEx(h, LOCKFILE_EXCLUSIVE_LOCK, 0, lo, hi, &ov)) return 0;
      set_mapped();
      return -1;
    case F_TLOCK:
    case F_TEST:
      if (LockFileEx(h, LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, lo, hi, &ov)) {
        if (cmd == F_TEST) UnlockFileEx(h, 0, lo, hi, &ov);
        return 0;
      }
      errno = EAGAIN;
      return -1;
    default:
      errno = EINVAL;
      return -1;
  }
}

LL_API QZDIR *qz_opendir(const char *name) noexcept {
  if (!name) {
    errno = EINVAL;
    return nullptr;
  }
  const uint32_t a = utf8_getfileattributes(name);
  if (a == QZ_INVALID_FILE_ATTRIBUTES) {
    errno = nt_to_posix_errno(errno);
    return nullptr;
  }
  if (!(a & QZ_FILE_ATTRIBUTE_DIRECTORY)) {
    errno = ENOTDIR;
    return nullptr;
  }
  auto *d = LL_FAULT(alloc) ? nullptr : new (std::nothrow) qz_dir;
  if (!d) {
    errno = ENOMEM;
    return nullptr;
  }
  d->pattern = name;
  if (!d->pattern.empty() && d->pattern.back() != '\\' && d->pattern.back() != '/') d->pattern += '\\';
  d->pattern += '*';
  d->h = utf8_findfirst(d->pattern.c_str(), &d->rec);
  d->pending = d->h != -1;
  return d;
}

LL_API struct qz_dirent *qz_readdir(QZDIR *dir) noexcept {
  if (!dir) {
    errno = EBADF;
    return nullptr;
  }
  while (next_entry(dir)) {
    const char *n = dir->rec.name;
    if (std::strcmp(n, ".") == 0 || std::strcmp(n, "..") == 0) continue;
    dir->ent.d_ino = 0;
    const uint32_t a = dir->rec.attributes;
    dir->ent.d_type = (a & QZ_FILE_ATTRIBUTE_REPARSE_POINT) ? QZ_DT_LNK
                      : (a & QZ_FILE_ATTRIBUTE_DIRECTORY)   ? QZ_DT_DIR
                                                            : QZ_DT_REG;
    std::memcpy(dir->ent.d_name, n, std::strlen(n) + 1);
    return &dir->ent;
  }
  return nullptr;
}

LL_API void qz_rewinddir(QZDIR *dir) noexcept {
  if (!dir) return;
  if (dir->h != -1) utf8_findclose(dir->h);
  dir->h = utf8_findfirst(dir->pattern.c_str(), &dir->rec);
  dir->pending = dir->h != -1;
}

LL_API int qz_closedir(QZDIR *dir) noexcept {
  if (!dir) {
    errno = EBADF;
    return -1;
  }
  if (dir->h != -1) utf8_findclose(dir->h);
  delete dir;
  return 0;
}

LL_API int ll_mkstemp(char *templ) noexcept {
  if (!templ) {
    errno = EINVAL;
    return -1;
  }
  char *x = template_tail(templ);
  if (!x) return -1;
  for (int tries = 0; tries < 1000; ++tries) {
    random_tail(x, 6);
    int fd = ll_open64(templ, O_RDWR | O_CREAT | O_EXCL, 0600u);
    if (fd >= 0 || errno != EEXIST) return fd;
  }
  errno = EEXIST;
  return -1;
}

LL_API char *ll_mkdtemp(char *templ) noexcept {
  if (!templ) {
    errno = EINVAL;
    return nullptr;
  }
  char *x = template_tail(templ);
  if (!x) return nullptr;
  for (int tries = 0; tries < 1000; ++tries) {
    random_tail(x, 6);
    if (utf8_mkdir(templ) == 0) return templ;
    if (errno != EEXIST) return nullptr;
  }
  errno = EEXIST;
  return nullptr;
}

LL_API int qzrename(const char *oldname, const char *newname) noexcept {
  if (!oldname || !newname) {
    errno = EINVAL;
    return -1;
  }
  if (utf8_movefileex(oldname, newname, MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) return 0;
  errno = nt_to_posix_errno(errno);
  return -1;
}

LL_API char *real_name(const char *name, char *buf, size_t size) noexcept {
  if (!name || !buf) {
    errno = EINVAL;
    return nullptr;
  }
  std::string found;
  if (ansi()) {
    AnsiName a(name);
    char full[kPathBuf];
    if (!a.ok) return nullptr;
    DWORD n = GetFullPathNameA(a.a, kPathBuf, full, nullptr);
    if (!n || n >= kPathBuf) {
      set_mapped();
      return nullptr;
    }
    while (n > 3 && full[n - 1] == '\\') full[--n] = 0;
    if (n <= 3) {
      errno = EINVAL;
      return nullptr;
    }
    WIN32_FIND_DATAA fd;
    HANDLE h = FindFirstFileA(full, &fd);
    if (h == INVALID_HANDLE_VALUE) {
      set_mapped();
      return nullptr;
    }
    FindClose(h);
    found = ansi_to_utf8(fd.cFileName);
  } else {
    WideName w(name);
    wchar_t full[kPathBuf];
    if (!w.ok) return nullptr;
    DWORD n = GetFullPathNameW(w.w, kPathBuf, full, nullptr);
    if (!n || n >= kPathBuf) {
      set_mapped();
      return nullptr;
    }
    while (n > 3 && full[n - 1] == L'\\') full[--n] = 0;
    // A root has no entry of its own: "X:\" or "\\host\share".
    const bool unc_root = full[0] == L'\\' && full[1] == L'\\' && [&] {
      const wchar_t *p = std::wcschr(full + 2, L'\\');
      return !p || !std::wcschr(p + 1, L'\\');
    }();
    if (n <= 3 || unc_root) {
      errno = EINVAL;
      return nullptr;
    }
    WIN32_FIND_DATAW fd;
    HANDLE h = FindFirstFileExW(full, FindExInfoStandard, &fd, FindExSearchNameMatch, nullptr, 0);
    if (h == INVALID_HANDLE_VALUE) {
      set_mapped();
      return nullptr;
    }
    FindClose(h);
    found = to_utf8(fd.cFileName);
  }
  if (found.size() + 1 > size) {
    errno = ERANGE;
    return nullptr;
  }
  std::memcpy(buf, found.c_str(), found.size() + 1);
  return buf;
}

LL_API void qz_close_most(void) noexcept {}

LL_API int ll_statfs(const char *path, struct ll_statfs *buf) noexcept {
  bool ok;
  std::wstring w = wide(path, ok);
  if (!ok || !buf) {
    errno = EINVAL;
    return -1;
  }
  if (utf8_getfileattributes(path) == QZ_INVALID_FILE_ATTRIBUTES) {  // as statfs(2): the name must exist
    errno = nt_to_posix_errno(errno);
    return -1;
  }
  return fs_of(w, buf);
}

LL_API int ll_fstatfs(int fd, struct ll_statfs *buf) noexcept {
  HANDLE h = reinterpret_cast<HANDLE>(_get_osfhandle(fd));
  if (h == INVALID_HANDLE_VALUE || !buf) {
    errno = EBADF;
    return -1;
  }
  wchar_t name[kPathBuf];
  DWORD n = GetFinalPathNameByHandleW(h, name, kPathBuf, 0);
  if (!n || n >= kPathBuf) {
    set_mapped();
    return -1;
  }
  return fs_of(name, buf);
}

}  // extern "C"

// The walker on Windows: each directory listed with one FindFirstFileExW
// pass in the long form ("\\?\"), so names of any total length work and the
// listing itself gives every entry's record.
#include <liblocal/dtree.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "frame/win32/win.h"
#include "paths/dtree_os.h"
#include "paths/win32/wpaths.h"

struct ll::dtree::OsDir {
  std::wstring path;  // long form, no trailing separator
  uint64_t dev = 0, ino = 0;
};

namespace ll::dtree {

namespace {

// UTF-8 to UTF-16: four-byte sequences become surrogate pairs, and the
// library's own form of a lone surrogate (three bytes) comes back as it was
// listed, so every listed name opens again. Bytes that are not UTF-8 give ok
// false: such a name cannot exist on this system.
std::wstring widen(const std::string &s, bool &ok) {
  static const unsigned kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  std::wstring w;
  w.reserve(s.size());
  ok = false;
  const auto *p = reinterpret_cast<const unsigned char *>(s.data());
  const auto *end = p + s.size();
  while (p < end) {
    unsigned c = *p, v;
    int len;
    if (c < 0x80) {
      w += static_cast<wchar_t>(c);
      ++p;
      continue;
    }
    if ((c & 0xE0) == 0xC0) len = 2, v = c & 0x1F;
    else if ((c & 0xF0) == 0xE0) len = 3, v = c & 0x0F;
    else if ((c & 0xF8) == 0xF0) len = 4, v = c & 0x07;
    else return {};
    if (end - p < len) return {};
    for (int i = 1; i < len; ++i) {
      if ((p[i] & 0xC0) != 0x80) return {};
      v = (v << 6) | (p[i] & 0x3F);
    }
    if (v < kSmallest[len] || v > 0x10FFFF) return {};
    if (v >= 0x10000) {
      v -= 0x10000;
      w += static_cast<wchar_t>(0xD800 + (v >> 10));
      w += static_cast<wchar_t>(0xDC00 + (v & 0x3FF));
    } else {
      w += static_cast<wchar_t>(v);
    }
    p += len;
  }
  ok = true;
  return w;
}

// The long form of a whole name: absolute, backslashes, "\\?\" or "\\?\UNC\" in front.
std::wstring long_form(const std::string &path, bool &ok) {
  std::wstring w = widen(path, ok);
  if (!ok) return {};
  for (wchar_t &c : w)
    if (c == L'/') c = L'\\';
  if (w.rfind(L"\\\\?\\", 0) == 0) return w;
  DWORD need = GetFullPathNameW(w.c_str(), 0, nullptr, nullptr);
  if (need == 0) {
    ok = false;
    return {};
  }
  std::wstring full(need, L'\0');
  DWORD len = GetFullPathNameW(w.c_str(), need, full.data(), nullptr);
  full.resize(len);
  if (full.rfind(L"\\\\", 0) == 0) return L"\\\\?\\UNC" + full.substr(1);
  return L"\\\\?\\" + full;
}

int64_t unix_time(const FILETIME &ft) {
  uint64_t t = (static_cast<uint64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
  return static_cast<int64_t>(t / 10000000ULL) - 11644473600LL;
}

void fill(const WIN32_FIND_DATAW &fd, uint64_t dev, struct ll_stat64 &st) {
  std::memset(&st, 0, sizeof st);
  bool dir = (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  st.st_mode = dir ? (0040000 | 0755) : (0100000 | 0644);
  if (fd.dwFileAttributes & FILE_ATTRIBUTE_READONLY) st.st_mode &= ~0222u;
  st.st_nlink = 1;
  st.st_dev = dev;
  st.st_size = dir ? 0 : static_cast<int64_t>((static_cast<uint64_t>(fd.nFileSizeHigh) << 32) | fd.nFileSizeLow);
  st.st_blksize = 4096;
  st.st_blocks = (st.st_size + 511) / 512;
  st.st_atime = unix_time(fd.ftLastAccessTime);
  st.st_mtime = unix_time(fd.ftLastWriteTime);
  st.st_ctime = unix_time(fd.ftCreationTime);
}

// The paths family's conversion of a system error into errno.
int last_error_errno(DWORD code) {
  ll::paths::win::set_mapped(code);
  return errno;
}

// Opens a directory by its long name and reads its identity.
OsDir *open_dir(std::wstring path, int &err) {
  while (path.size() > 4 && path.back() == L'\\' && !(path.size() == 7 && path[5] == L':')) path.pop_back();
  HANDLE h = CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                         nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
  if (h == INVALID_HANDLE_VALUE) {
    err = last_error_errno(GetLastError());
    return nullptr;
  }
  BY_HANDLE_FILE_INFORMATION info;
  bool have = GetFileInformationByHandle(h, &info) != 0;
  CloseHandle(h);
  if (have && !(info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) {
    err = ENOTDIR;
    return nullptr;
  }
  OsDir *d = new (std::nothrow) OsDir;
  if (!d) {
    err = ENOMEM;
    return nullptr;
  }
  d->path = std::move(path);
  if (have) {
    d->dev = info.dwVolumeSerialNumber;
    d->ino = (static_cast<uint64_t>(info.nFileIndexHigh) << 32) | info.nFileIndexLow;
  }
  return d;
}

}  // namespace

OsDir *open_root(const std::string &path, int &err) noexcept {
  try {
    bool ok = false;
    std::wstring w = long_form(path, ok);
    if (!ok) {
      err = EINVAL;
      return nullptr;
    }
    return open_dir(std::move(w), err);
  } catch (...) {
    err = ENOMEM;
    return nullptr;
  }
}

OsDir *open_child(OsDir *parent, const Item &item, const std::string &, bool, int &err) noexcept {
  try {
    bool ok = false;
    std::wstring name = widen(item.name, ok);
    if (!ok) {
      err = EINVAL;
      return nullptr;
    }
    std::wstring p = parent->path;
    if (p.back() != L'\\') p += L'\\';
    return open_dir(p + name, err);
  } catch (...) {
    err = ENOMEM;
    return nullptr;
  }
}

bool list(OsDir *dir, std::vector<Item> &out, int &err) noexcept {
  try {
    std::wstring pattern = dir->path;
    if (pattern.back() != L'\\') pattern += L'\\';
    pattern += L'*';
    WIN32_FIND_DATAW fd;
    HANDLE h = FindFirstFileExW(pattern.c_str(), FindExInfoBasic, &fd, FindExSearchNameMatch, nullptr,
                                FIND_FIRST_EX_LARGE_FETCH);
    if (h == INVALID_HANDLE_VALUE) {
      DWORD code = GetLastError();
      if (code == ERROR_FILE_NOT_FOUND || code == ERROR_NO_MORE_FILES) return true;
      err = last_error_errno(code);
      return false;
    }
    do {
      const wchar_t *n = fd.cFileName;
      if (n[0] == L'.' && (n[1] == L'\0' || (n[1] == L'.' && n[2] == L'\0'))) continue;
      Item it;
      it.name = ll::paths::win::to_utf8(n);
      fill(fd, dir->dev, it.st);
      it.have_st = true;
      if (fd.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) it.reparse = fd.dwReserved0 ? fd.dwReserved0 : 1;
      out.push_back(std::move(it));
    } while (FindNextFileW(h, &fd));
    DWORD code = GetLastError();
    FindClose(h);
    if (code != ERROR_NO_MORE_FILES) {
      err = last_error_errno(code);
      return false;
    }
    return true;
  } catch (...) {
    err = ENOMEM;
    return false;
  }
}

int inspect(OsDir *dir, Item &item, const std::string &, bool follow) noexcept {
  if (item.have_st && !follow) return 0;
  try {
    bool ok = false;
    std::wstring name = widen(item.name, ok);
    if (!ok) return EINVAL;
    std::wstring p = dir->path;
    if (p.back() != L'\\') p += L'\\';
    p += name;
    WIN32_FILE_ATTRIBUTE_DATA a;
    if (!GetFileAttributesExW(p.c_str(), GetFileExInfoStandard, &a)) return last_error_errno(GetLastError());
    WIN32_FIND_DATAW fd{};
    fd.dwFileAttributes = a.dwFileAttributes & ~static_cast<DWORD>(FILE_ATTRIBUTE_REPARSE_POINT);
    fd.ftCreationTime = a.ftCreationTime;
    fd.ftLastAccessTime = a.ftLastAccessTime;
    fd.ftLastWriteTime = a.ftLastWriteTime;
    fd.nFileSizeHigh = a.nFileSizeHigh;
    fd.nFileSizeLow = a.nFileSizeLow;
    fill(fd, dir->dev, item.st);
    item.have_st = true;
    return 0;
  } catch (...) {
    return ENOMEM;
  }
}

int stat_root(const std::string &path, struct ll_stat64 &st, unsigned &reparse) noexcept {
  try {
    bool ok = false;
    std::wstring w = long_form(path, ok);
    if (!ok) return EINVAL;
    while (w.size() > 4 && w.back() == L'\\' && !(w.size() == 7 && w[5] == L':')) w.pop_back();
    WIN32_FILE_ATTRIBUTE_DATA a;
    if (!GetFileAttributesExW(w.c_str(), GetFileExInfoStandard, &a)) return last_error_errno(GetLastError());
    WIN32_FIND_DATAW fd{};
    fd.dwFileAttributes = a.dwFileAttributes;
    fd.ftCreationTime = a.ftCreationTime;
    fd.ftLastAccessTime = a.ftLastAccessTime;
    fd.ftLastWriteTime = a.ftLastWriteTime;
    fd.nFileSizeHigh = a.nFileSizeHigh;
    fd.nFileSizeLow = a.nFileSizeLow;
    reparse = 0;  // the root is followed
    uint64_t dev = 0;
    if (a.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
      int err = 0;
      if (OsDir *d = open_dir(w, err)) {
        dev = d->dev;
        delete d;
      }
    }
    fill(fd, dev, st);
    return 0;
  } catch (...) {
    return ENOMEM;
  }
}

void identity(OsDir *dir, const struct ll_stat64 &, uint64_t &dev, uint64_t &ino) noexcept {
  dev = dir->dev;
  ino = dir->ino;
}

void close(OsDir *dir) noexcept { delete dir; }

char separator() noexcept { return '\\'; }

int kind_of(const struct ll_stat64 &st, unsigned reparse) noexcept {
  if (reparse == IO_REPARSE_TAG_SYMLINK) return QZ_DTK_LINK;
  if (reparse != 0) return QZ_DTK_JUNCTION;
  return (st.st_mode & 0170000) == 0040000 ? QZ_DTK_DIR : QZ_DTK_FILE;
}

}  // namespace ll::dtree

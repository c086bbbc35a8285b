// The walker on Windows: every directory is held open by a handle while it
// is walked and listed through that handle, so what is listed is the
// directory that was checked, not whatever the name leads to by then. A
// directory is opened without following a reparse point unless the walk
// asked to follow it, and names are handed to the system in the long form
// ("\\?\"), so names of any total length work. The listing gives every
// entry's record and file id at once.
#include <liblocal/dtree.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "frame/optional.h"
#include "frame/fault.h"
#include "frame/win32/win.h"
#include "paths/dtree_os.h"
#include "paths/win32/wpaths.h"

namespace {
// The tag the listing gives a junction that leads to the root of a volume:
// a mount point, not a junction (no real tag has this value).
constexpr unsigned kVolumeMountPoint = 0xFFFFFFFEu;
}  // namespace

struct ll::dtree::OsDir {
  HANDLE h = INVALID_HANDLE_VALUE;
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
  if (full.rfind(L"\\\\.\\", 0) == 0) return L"\\\\?\\" + full.substr(4);  // "\\.\C:\..."
  if (full.rfind(L"\\\\", 0) != 0) return L"\\\\?\\" + full;
  std::wstring unc = L"\\\\?\\UNC" + full.substr(1);
  // A share's root is named with its separator: "\\server\share\".
  const size_t at = unc.find(L'\\', 8);
  if (at != std::wstring::npos && unc.find(L'\\', at + 1) == std::wstring::npos) unc += L'\\';
  return unc;
}

int64_t unix_time(int64_t t) {
  return static_cast<int64_t>(static_cast<uint64_t>(t) / 10000000ULL) - 11644473600LL;
}
int64_t unix_time(const FILETIME &ft) {
  return unix_time(static_cast<int64_t>((static_cast<uint64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime));
}

// The parts of a record every source of it has.
struct Facts {
  DWORD attributes = 0;
  int64_t size = 0, atime = 0, mtime = 0, ctime = 0;
  uint64_t dev = 0, ino = 0;
  unsigned nlink = 1;
};

void fill(const Facts &f, struct ll_stat64 &st) {
  std::memset(&st, 0, sizeof st);
  const bool dir = (f.attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  st.st_mode = dir ? (0040000 | 0755) : (0100000 | 0644);
  if (f.attributes & FILE_ATTRIBUTE_READONLY) st.st_mode &= ~0222u;
  st.st_nlink = f.nlink;
  st.st_dev = f.dev;
  st.st_ino = f.ino;
  st.st_size = dir ? 0 : f.size;
  st.st_blksize = 4096;
  st.st_blocks = (st.st_size + 511) / 512;
  st.st_atime = f.atime;
  st.st_mtime = f.mtime;
  st.st_ctime = f.ctime;
}

// The paths family's conversion of a system error into errno.
int last_error_errno(DWORD code) {
  ll::paths::win::set_mapped(code);
  return errno;
}

std::wstring join(const std::wstring &dir, const std::wstring &name) {
  std::wstring p = dir;
  if (p.empty() || p.back() != L'\\') p += L'\\';
  return p + name;
}

// Drops trailing separators, but not the one a drive root ("\\?\C:\") or a
// share root ("\\?\UNC\server\share\") needs to name the root itself.
void trim(std::wstring &path) {
  auto share_root = [&path] {
    if (path.rfind(L"\\\\?\\UNC\\", 0) != 0) return false;
    const size_t at = path.find(L'\\', 8);
    return at != std::wstring::npos && path.find(L'\\', at + 1) == path.size() - 1;
  };
  while (path.size() > 4 && path.back() == L'\\' && !(path.size() == 7 && path[5] == L':') && !share_root())
    path.pop_back();
}

// Opens a file or directory for its record: through a reparse point only
// when follow is set, otherwise the reparse point itself.
HANDLE open_handle(const std::wstring &path, bool follow, bool list) {
  const DWORD access = FILE_READ_ATTRIBUTES | SYNCHRONIZE | (list ? FILE_LIST_DIRECTORY : 0);
  if (LL_FAULT(open)) return INVALID_HANDLE_VALUE;
  return CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                     OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | (follow ? 0 : FILE_FLAG_OPEN_REPARSE_POINT), nullptr);
}

bool facts_of(HANDLE h, Facts &f) {
  BY_HANDLE_FILE_INFORMATION info;
  if (!GetFileInformationByHandle(h, &info)) return false;
  f.attributes = info.dwFileAttributes;
  f.size = static_cast<int64_t>((static_cast<uint64_t>(info.nFileSizeHigh) << 32) | info.nFileSizeLow);
  f.atime = unix_time(info.ftLastAccessTime);
  f.mtime = unix_time(info.ftLastWriteTime);
  f.ctime = unix_time(info.ftCreationTime);
  f.dev = info.dwVolumeSerialNumber;
  f.ino = (static_cast<uint64_t>(info.nFileIndexHigh) << 32) | info.nFileIndexLow;
  f.nlink = info.nNumberOfLinks ? info.nNumberOfLinks : 1;
  return true;
}

// A reparse point that names another place (a link, junction or mount
// point) is not walked through; any other (deduplicated, cloud or
// compressed files) is the file or directory it stands for. A tag the
// listing did not give counts as a link.
bool names_another_place(unsigned tag) { return tag == 0 || tag == kVolumeMountPoint || (tag & 0x20000000u) != 0; }

unsigned tag_of(HANDLE h) {
  FILE_ATTRIBUTE_TAG_INFO info{};
  return GetFileInformationByHandleEx(h, FileAttributeTagInfo, &info, sizeof info) ? info.ReparseTag : 0;
}

// Opens a directory by its long name and keeps it open. Unless follow is
// set, a reparse point found there (a link or junction put in place since
// the listing) is refused rather than followed.
OsDir *open_dir(std::wstring path, bool follow, int &err) {
  trim(path);
  HANDLE h = open_handle(path, follow, true);
  if (h == INVALID_HANDLE_VALUE) {
    err = last_error_errno(GetLastError());
    return nullptr;
  }
  Facts f;
  if (facts_of(h, f)) {
    if (!(f.attributes & FILE_ATTRIBUTE_DIRECTORY)) err = ENOTDIR;
    else if (!follow && (f.attributes & FILE_ATTRIBUTE_REPARSE_POINT) && names_another_place(tag_of(h))) err = ELOOP;
    if (err) {
      CloseHandle(h);
      return nullptr;
    }
  }
  OsDir *d = new (std::nothrow) OsDir;
  if (!d) {
    CloseHandle(h);
    err = ENOMEM;
    return nullptr;
  }
  d->h = h;
  d->path = std::move(path);
  d->dev = f.dev;
  d->ino = f.ino;
  return d;
}

Item item_of(std::string name, const Facts &f, unsigned tag) {
  Item it;
  it.name = std::move(name);
  fill(f, it.st);
  it.have_st = true;
  if ((f.attributes & FILE_ATTRIBUTE_REPARSE_POINT) && names_another_place(tag)) it.reparse = tag ? tag : 1;
  return it;
}

// Test seam: entries of this name are listed as reparse points of this tag.
std::string g_fake_name;
unsigned g_fake_tag = 0;
void fake_reparse(const std::wstring &name, Facts &f, unsigned &tag) {
  if (g_fake_name.empty() || ll::paths::win::to_utf8(name.c_str()) != g_fake_name) return;
  f.attributes |= FILE_ATTRIBUTE_REPARSE_POINT;
  tag = g_fake_tag;
}

// True when a junction is a volume mount point. Without the system's
// mount-point calls every junction stays a junction.
bool leads_to_volume(const std::wstring &path) {
  using Fn = BOOL(WINAPI *)(LPCWSTR, LPWSTR, DWORD);
  auto fn = reinterpret_cast<Fn>(ll::optional::get(ll::optional::kGetVolumeNameForVolumeMountPointW));
  wchar_t volume[64];
  return fn && fn((path + L"\\").c_str(), volume, 64) != 0;
}

bool dot_or_dotdot(const wchar_t *n, size_t len) {
  return (len == 1 && n[0] == L'.') || (len == 2 && n[0] == L'.' && n[1] == L'.');
}

// The listing through the path, for file systems that cannot list through
// a handle.
bool list_by_name(OsDir *dir, std::vector<Item> &out, int &err) {
  WIN32_FIND_DATAW fd;
  HANDLE h = FindFirstFileExW(join(dir->path, L"*").c_str(), FindExInfoBasic, &fd, FindExSearchNameMatch, nullptr,
                              FIND_FIRST_EX_LARGE_FETCH);
  if (h == INVALID_HANDLE_VALUE) {
    DWORD code = GetLastError();
    if (code == ERROR_FILE_NOT_FOUND || code == ERROR_NO_MORE_FILES) return true;
    err = last_error_errno(code);
    return false;
  }
  do {
    if (dot_or_dotdot(fd.cFileName, wcslen(fd.cFileName))) continue;
    Facts f;
    f.attributes = fd.dwFileAttributes;
    f.size = static_cast<int64_t>((static_cast<uint64_t>(fd.nFileSizeHigh) << 32) | fd.nFileSizeLow);
    f.atime = unix_time(fd.ftLastAccessTime);
    f.mtime = unix_time(fd.ftLastWriteTime);
    f.ctime = unix_time(fd.ftCreationTime);
    f.dev = dir->dev;
    out.push_back(item_of(ll::paths::win::to_utf8(fd.cFileName), f, fd.dwReserved0));
  } while (FindNextFileW(h, &fd));
  DWORD code = GetLastError();
  FindClose(h);
  if (code != ERROR_NO_MORE_FILES) {
    err = last_error_errno(code);
    return false;
  }
  return true;
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
    return open_dir(std::move(w), true, err);
  } catch (...) {
    err = ENOMEM;
    return nullptr;
  }
}

OsDir *open_child(OsDir *parent, const Item &item, const std::string &, bool follow, int &err) noexcept {
  try {
    bool ok = false;
    std::wstring name = widen(item.name, ok);
    if (!ok) {
      err = EINVAL;
      return nullptr;
    }
    OsDir *d = open_dir(join(parent->path, name), follow, err);
    // Another directory under the listed name since the listing: it is not
    // the entry that was reported.
    if (d && !follow && item.st.st_ino != 0 && d->ino != 0 && d->ino != item.st.st_ino) {
      close(d);
      err = ENOENT;
      return nullptr;
    }
    return d;
  } catch (...) {
    err = ENOMEM;
    return nullptr;
  }
}

bool list(OsDir *dir, std::vector<Item> &out, int &err) noexcept {
  try {
    // 64 KiB a call, aligned for the records' 64-bit fields.
    std::vector<uint64_t> buf(8192);
    FILE_INFO_BY_HANDLE_CLASS cls = FileIdBothDirectoryRestartInfo;
    for (;;) {
      if (!GetFileInformationByHandleEx(dir->h, cls, buf.data(), static_cast<DWORD>(buf.size() * sizeof buf[0]))) {
        DWORD code = GetLastError();
        if (code == ERROR_NO_MORE_FILES) return true;
        if (cls == FileIdBothDirectoryRestartInfo && out.empty() &&
            (code == ERROR_INVALID_PARAMETER || code == ERROR_NOT_SUPPORTED || code == ERROR_INVALID_FUNCTION))
          return list_by_name(dir, out, err);
        err = last_error_errno(code);
        return false;
      }
      cls = FileIdBothDirectoryInfo;
      const auto *base = reinterpret_cast<const unsigned char *>(buf.data());
      for (size_t at = 0;;) {
        const auto *e = reinterpret_cast<const FILE_ID_BOTH_DIR_INFO *>(base + at);
        const size_t len = e->FileNameLength / sizeof(wchar_t);
        if (!dot_or_dotdot(e->FileName, len)) {
          Facts f;
          f.attributes = e->FileAttributes;
          f.size = e->EndOfFile.QuadPart;
          f.atime = unix_time(e->LastAccessTime.QuadPart);
          f.mtime = unix_time(e->LastWriteTime.QuadPart);
          f.ctime = unix_time(e->CreationTime.QuadPart);
          f.dev = dir->dev;
          f.ino = static_cast<uint64_t>(e->FileId.QuadPart);
          // For a reparse point the listing carries its tag where the
          // extended-attribute size would be.
          std::wstring wname(e->FileName, len);
          unsigned tag = e->EaSize;
          fake_reparse(wname, f, tag);
          if ((f.attributes & FILE_ATTRIBUTE_REPARSE_POINT) && tag == IO_REPARSE_TAG_MOUNT_POINT &&
              leads_to_volume(join(dir->path, wname)))
            tag = kVolumeMountPoint;
          out.push_back(item_of(ll::paths::win::to_utf8(wname.c_str()), f, tag));
        }
        if (e->NextEntryOffset == 0) break;
        at += e->NextEntryOffset;
      }
    }
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
    HANDLE h = open_handle(join(dir->path, name), follow, false);
    if (h == INVALID_HANDLE_VALUE) return last_error_errno(GetLastError());
    Facts f;
    const bool have = facts_of(h, f);
    const DWORD code = GetLastError();
    CloseHandle(h);
    if (!have) return last_error_errno(code);
    if (follow) f.attributes &= ~static_cast<DWORD>(FILE_ATTRIBUTE_REPARSE_POINT);
    fill(f, item.st);
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
    trim(w);
    HANDLE h = open_handle(w, true, false);  // the root is followed
    if (h == INVALID_HANDLE_VALUE) return last_error_errno(GetLastError());
    Facts f;
    const bool have = facts_of(h, f);
    const DWORD code = GetLastError();
    CloseHandle(h);
    if (!have) return last_error_errno(code);
    f.attributes &= ~static_cast<DWORD>(FILE_ATTRIBUTE_REPARSE_POINT);
    reparse = 0;
    fill(f, st);
    return 0;
  } catch (...) {
    return ENOMEM;
  }
}

void identity(OsDir *dir, const struct ll_stat64 &, uint64_t &dev, uint64_t &ino) noexcept {
  dev = dir->dev;
  ino = dir->ino;
}

void close(OsDir *dir) noexcept {
  if (!dir) return;
  if (dir->h != INVALID_HANDLE_VALUE) CloseHandle(dir->h);
  delete dir;
}

char separator() noexcept { return '\\'; }

int kind_of(const struct ll_stat64 &st, unsigned reparse) noexcept {
  if (reparse == IO_REPARSE_TAG_SYMLINK) return QZ_DTK_LINK;
  if (reparse == kVolumeMountPoint) return QZ_DTK_MOUNT;
  if (reparse != 0) return QZ_DTK_JUNCTION;
  return (st.st_mode & 0170000) == 0040000 ? QZ_DTK_DIR : QZ_DTK_FILE;
}

}  // namespace ll::dtree

extern "C" LL_API void llt_dtree_reparse(const char *name, unsigned tag) noexcept {
  ll::dtree::g_fake_name = name ? name : "";
  ll::dtree::g_fake_tag = tag;
}

// The UTF-8 file-system calls on Windows: W calls with UTF-16 names, or A
// calls with ANSI names on the 9x class.
#include <liblocal/fileio.h>
#include <liblocal/path.h>
#include <liblocal/syserr.h>
#include <liblocal/utf8.h>
#include <liblocal/wfile.h>

#include <direct.h>
#include <io.h>

#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <mutex>
#include <string>

#include "frame/areas.h"
#include "frame/optional.h"
#include "paths/win32/wpaths.h"

#include <winnetwk.h>

using namespace ll::paths;
using namespace ll::paths::win;

namespace {

// What Wine cannot produce, set by the tests: a find entry to report as a
// reparse point, reparse data for a path, a mapped network drive, and the
// absence of the volume-mount-point operations.
struct Fakes {
  std::mutex lock;
  std::string reparse_name;
  uint32_t reparse_tag = 0;
  std::string target_path;
  std::string target_data;
  int net_letter = 0;
  std::string net_name;
  bool hide_volmntpt = false;
};
Fakes *fakes() { return ll::process_area<Fakes>(); }

void put_time(uint32_t out[2], const FILETIME &t) {
  out[0] = t.dwLowDateTime;
  out[1] = t.dwHighDateTime;
}

template <class FindData>
void fill_common(qz_finddata_t *rec, const FindData &fd) {
  rec->attributes = fd.dwFileAttributes;
  put_time(rec->creation_time, fd.ftCreationTime);
  put_time(rec->access_time, fd.ftLastAccessTime);
  put_time(rec->write_time, fd.ftLastWriteTime);
  rec->size_high = fd.nFileSizeHigh;
  rec->size_low = fd.nFileSizeLow;
  rec->reserved0 = fd.dwReserved0;
  rec->reserved1 = fd.dwReserved1;
  rec->trailer[0] = rec->trailer[1] = rec->trailer[2] = 0;
}

void finish(qz_finddata_t *rec) {
  Fakes *f = fakes();
  {
    std::lock_guard<std::mutex> g(f->lock);
    if (!f->reparse_name.empty() && f->reparse_name == rec->name) {
      rec->attributes |= FILE_ATTRIBUTE_REPARSE_POINT;
      rec->reserved0 = f->reparse_tag;
    }
  }
  if ((rec->attributes & FILE_ATTRIBUTE_REPARSE_POINT) && rec->reserved0 == QZ_IO_REPARSE_TAG_MOUNT_POINT)
    rec->trailer[2] = QZ_FIND_VOLUME_MOUNT_POINT;
}

void fill_w(qz_finddata_t *rec, const WIN32_FIND_DATAW &fd) {
  fill_common(rec, fd);
  widetoutf8(reinterpret_cast<const qzwchar_t *>(fd.cFileName), rec->name, sizeof rec->name);
  finish(rec);
}

void fill_a(qz_finddata_t *rec, const WIN32_FIND_DATAA &fd) {
  fill_common(rec, fd);
  utf8_mbs(rec->name, fd.cFileName, sizeof rec->name);
  finish(rec);
}

bool has_wild(const wchar_t *s) { return std::wcspbrk(s, L"*?") != nullptr; }

// The run-time-found volume-mount-point operations.
struct VolOps {
  BOOL(WINAPI *name_for)(LPCWSTR, LPWSTR, DWORD) = nullptr;
  HANDLE(WINAPI *first)(LPCWSTR, LPWSTR, DWORD) = nullptr;
  BOOL(WINAPI *next)(HANDLE, LPWSTR, DWORD) = nullptr;
  BOOL(WINAPI *close)(HANDLE) = nullptr;
  BOOL(WINAPI *volume_path)(LPCWSTR, LPWSTR, DWORD) = nullptr;
  VolOps() {
    auto get = [](auto &fn, ll::optional::Id id) { fn = reinterpret_cast<std::remove_reference_t<decltype(fn)>>(ll::optional::get(id)); };
    get(name_for, ll::optional::kGetVolumeNameForVolumeMountPointW);
    get(first, ll::optional::kFindFirstVolumeMountPointW);
    get(next, ll::optional::kFindNextVolumeMountPointW);
    get(close, ll::optional::kFindVolumeMountPointClose);
    get(volume_path, ll::optional::kGetVolumePathNameW);
  }
};
const VolOps &volops() { return *ll::process_area<VolOps>(); }
bool volops_missing(bool have) {
  bool hidden;
  {
    Fakes *f = fakes();
    std::lock_guard<std::mutex> g(f->lock);
    hidden = f->hide_volmntpt;
  }
  if (have && !hidden) return false;
  errno = ENOENT;
  return true;
}

std::string reparse_target(const unsigned char *data, size_t len) {
  auto u16 = [&](size_t at) -> unsigned { return at + 2 <= len ? data[at] | (data[at + 1] << 8) : 0; };
  if (len < 16) return {};
  const uint32_t tag = data[0] | (data[1] << 8) | (data[2] << 16) | (static_cast<uint32_t>(data[3]) << 24);
  size_t base;
  if (tag == QZ_IO_REPARSE_TAG_MOUNT_POINT)
    base = 16;
  else if (tag == QZ_IO_REPARSE_TAG_SYMLINK)
    base = 20;
  else
    return {};
  unsigned sub_off = u16(8), sub_len = u16(10), print_off = u16(12), print_len = u16(14);
  unsigned off = print_len ? print_off : sub_off, n = print_len ? print_len : sub_len;
  if (base + off + n > len) return {};
  std::wstring w(n / 2, L'\0');
  std::memcpy(w.data(), data + base + off, n / 2 * 2);
  if (w.compare(0, 4, L"\\??\\") == 0) w.erase(0, 4);
  return to_utf8(w.c_str());
}

}  // namespace

extern "C" {

LL_API intptr_t utf8_findfirstex(const char *pattern, qz_finddata_t *rec, int exact) noexcept {
  if (!pattern || !rec) return -1;
  if (ansi()) {
    AnsiName a(pattern);
    if (!a.ok) return -1;
    WIN32_FIND_DATAA fd;
    HANDLE h = FindFirstFileA(a.a, &fd);
    if (h == INVALID_HANDLE_VALUE) {
      set_mapped();
      return -1;
    }
    fill_a(rec, fd);
    return reinterpret_cast<intptr_t>(h);
  }
  WideName n(pattern);
  if (!n.ok) return -1;
  WIN32_FIND_DATAW fd;
  HANDLE h = FindFirstFileExW(n.w, FindExInfoStandard, &fd, FindExSearchNameMatch, nullptr,
                              exact ? FIND_FIRST_EX_CASE_SENSITIVE : 0);
  if (h == INVALID_HANDLE_VALUE) {
    set_mapped();
    return -1;
  }
  // The last component of the pattern, without trailing ".", "/" and "\".
  std::wstring p = n.w;
  while (p.size() > 1 && (p.back() == L'.' || p.back() == L'/' || p.back() == L'\\')) p.pop_back();
  size_t cut = p.find_last_of(L'\\');
  if (cut == std::wstring::npos) cut = p.find_last_of(L'/');
  if (cut == std::wstring::npos) cut = p.find_last_of(L':');
  const std::wstring comp = cut == std::wstring::npos ? p : p.substr(cut + 1);
  if (!has_wild(comp.c_str()) && comp != fd.cFileName) {
    // One particular name: prefer the entry spelled exactly so.
    const WIN32_FIND_DATAW first = fd;
    bool found = false;
    while (FindNextFileW(h, &fd))
      if (comp == fd.cFileName) {
        found = true;
        break;
      }
    if (!found) {
      if (exact) {
        FindClose(h);
        set_mapped(ERROR_FILE_NOT_FOUND);
        return -1;
      }
      fd = first;
    }
  }
  fill_w(rec, fd);
  return reinterpret_cast<intptr_t>(h);
}

LL_API intptr_t utf8_findfirst(const char *pattern, qz_finddata_t *rec) noexcept {
  return utf8_findfirstex(pattern, rec, 0);
}

LL_API int utf8_findnext(intptr_t handle, qz_finddata_t *rec) noexcept {
  if (!rec || handle == -1) return 0;
  HANDLE h = reinterpret_cast<HANDLE>(handle);
  if (ansi()) {
    WIN32_FIND_DATAA fd;
    if (!FindNextFileA(h, &fd)) return 0;
    fill_a(rec, fd);
    return 1;
  }
  WIN32_FIND_DATAW fd;
  if (!FindNextFileW(h, &fd)) return 0;
  fill_w(rec, fd);
  return 1;
}

LL_API int utf8_findclose(intptr_t handle) noexcept {
  if (handle == -1) return 0;
  return FindClose(reinterpret_cast<HANDLE>(handle)) ? 1 : 0;
}

// The Windows directory is the system directory without its last component
// ("C:\windows\system32" gives "C:\windows").
LL_API unsigned int utf8_getwindowsdirectory(char *buf, unsigned int size) noexcept {
  if (ansi()) {
    char a[kPathBuf];
    UINT n = GetWindowsDirectoryA(a, kPathBuf);
    if (!n || n >= kPathBuf) return 0;
    return copy_out(ansi_to_utf8(a), buf, size);
  }
  wchar_t w[kPathBuf];
  UINT n = GetSystemDirectoryW(w, kPathBuf);
  if (!n || n >= kPathBuf) return 0;
  std::wstring lower(w);
  for (auto &c : lower) c = static_cast<wchar_t>(towlower(c));
  if (const wchar_t *at = std::wcsstr(lower.c_str(), L"\\system32")) {
    wchar_t out[kPathBuf];
    lstrcpynW(out, w, static_cast<int>(at - lower.c_str()) + 1);
    return copy_out(to_utf8(out), buf, size);
  }
  return copy_out(to_utf8(w), buf, size);
}

LL_API unsigned int utf8_getsystemdirectory(char *buf, unsigned int size) noexcept {
  if (ansi()) {
    char a[kPathBuf];
    UINT n = GetSystemDirectoryA(a, kPathBuf);
    if (!n || n >= kPathBuf) return 0;
    return copy_out(ansi_to_utf8(a), buf, size);
  }
  wchar_t w[kPathBuf];
  UINT n = GetSystemDirectoryW(w, kPathBuf);
  if (!n || n >= kPathBuf) return 0;
  return copy_out(to_utf8(w), buf, size);
}

LL_API unsigned int utf8_gettemppath(unsigned int size, char *buf) noexcept {
  if (ansi()) {
    char a[kPathBuf];
    DWORD n = GetTempPathA(kPathBuf, a);
    if (!n || n >= kPathBuf) return 0;
    return copy_out(ansi_to_utf8(a), buf, size);
  }
  wchar_t w[kPathBuf];
  DWORD n = GetTempPathW(kPathBuf, w);
  if (!n || n >= kPathBuf) return 0;
  return copy_out(to_utf8(w), buf, size);
}

LL_API unsigned int utf8_gettempfilename(const char *dir, const char *prefix, unsigned int unique,
                                         char *out) noexcept {
  if (!dir || !out) return 0;
  if (!prefix) prefix = "";
  if (ansi()) {
    AnsiName d(dir), p(prefix);
    char a[MAX_PATH + 1];
    if (!d.ok || !p.ok) return 0;
    UINT n = GetTempFileNameA(d.a, p.a, unique, a);
    if (n) utf8_mbs(out, a, 260);
    return n;
  }
  WideName d(dir), p(prefix);
  wchar_t w[MAX_PATH + 1];
  if (!d.ok || !p.ok) return 0;
  UINT n = GetTempFileNameW(d.w, p.w, unique, w);
  if (n) widetoutf8(reinterpret_cast<const qzwchar_t *>(w), out, 260);
  return n;
}

LL_API int utf8_setcurrentdirectory(const char *path) noexcept {
  BOOL ok;
  if (ansi()) {
    AnsiName a(path);
    if (!a.ok) return 0;
    ok = SetCurrentDirectoryA(a.a);
  } else {
    WideName n(path);
    if (!n.ok) return 0;
    ok = SetCurrentDirectoryW(n.w);
  }
  if (!ok) set_mapped();
  return ok ? 1 : 0;
}

LL_API int utf8_chdir(const char *path) noexcept { return utf8_setcurrentdirectory(path) ? 0 : -1; }

LL_API unsigned int utf8_getcurrentdirectory(unsigned int size, char *buf) noexcept {
  std::string s;
  if (ansi()) {
    char a[kPathBuf];
    DWORD n = GetCurrentDirectoryA(kPathBuf, a);
    if (!n || n >= kPathBuf) {
      set_raw();
      return 0;
    }
    s = ansi_to_utf8(a);
  } else {
    wchar_t w[kPathBuf];
    DWORD n = GetCurrentDirectoryW(kPathBuf, w);
    if (!n || n >= kPathBuf) {
      set_raw();
      return 0;
    }
    s = to_utf8(w);
  }
  return copy_out(s, buf, size);
}

LL_API char *utf8_getcwd(char *buf, int size) noexcept {
  if (size <= 0) {
    errno = EINVAL;
    return nullptr;
  }
  if (ansi()) return _getcwd(buf, size);
  // Rebuilt from the names on disk: the name of ".", then up one level, until
  // the root, where the name lookup fails.
  wchar_t start[kPathBuf];
  DWORD sl = GetCurrentDirectoryW(kPathBuf, start);
  if (!sl || sl >= kPathBuf) {
    set_raw();
    return nullptr;
  }
  if (start[0] == L'\\') {  // a UNC current directory has no drive: take its text
    std::string s = to_utf8(start);
    if (s.size() + 1 > static_cast<size_t>(size)) {
      errno = ERANGE;
      return nullptr;
    }
    if (!buf && !(buf = static_cast<char *>(std::malloc(static_cast<size_t>(size))))) return nullptr;
    std::memcpy(buf, s.c_str(), s.size() + 1);
    return buf;
  }
  std::string result;
  char name[kNameMax];
  for (int depth = 0; depth < 2048 && real_name(".", name, sizeof name); ++depth) {
    result = "\\" + std::string(name) + result;
    if (utf8_chdir("..") != 0) {
      SetCurrentDirectoryW(start);
      errno = 13;
      return nullptr;
    }
  }
  const int drive = _getdrive();
  std::string full = std::string(1, static_cast<char>('A' + drive - 1)) + ":" + (result.empty() ? "\\" : result);
  utf8_chdir(full.c_str());
  if (full.size() + 1 > static_cast<size_t>(size)) {
    errno = ERANGE;
    return nullptr;
  }
  if (!buf && !(buf = static_cast<char *>(std::malloc(static_cast<size_t>(size))))) return nullptr;
  std::memcpy(buf, full.c_str(), full.size() + 1);
  return buf;
}

LL_API int utf8_setfileattributes(const char *path, uint32_t attrs) noexcept {
  BOOL ok;
  if (ansi()) {
    AnsiName a(path);
    if (!a.ok) return 0;
    ok = SetFileAttributesA(a.a, attrs);
  } else {
    LongName n(path);
    if (!n.ok) return 0;
    ok = SetFileAttributesW(n.w, attrs);
  }
  if (!ok) set_raw();
  return ok ? 1 : 0;
}

LL_API uint32_t utf8_getfileattributes(const char *path) noexcept {
  DWORD a;
  if (ansi()) {
    AnsiName n(path);
    if (!n.ok) return QZ_INVALID_FILE_ATTRIBUTES;
    a = GetFileAttributesA(n.a);
  } else {
    LongName n(path);
    if (!n.ok) return QZ_INVALID_FILE_ATTRIBUTES;
    a = GetFileAttributesW(n.w);
  }
  if (a == INVALID_FILE_ATTRIBUTES) set_raw();
  return a;
}

LL_API int utf8_setfilesecurity(const char *path, uint32_t info, void *descriptor) noexcept {
  BOOL ok;
  if (ansi()) {
    AnsiName a(path);
    if (!a.ok) return 0;
    ok = SetFileSecurityA(a.a, info, descriptor);
  } else {
    WideName n(path);
    if (!n.ok) return 0;
    ok = SetFileSecurityW(n.w, info, descriptor);
  }
  if (!ok) set_raw();
  return ok ? 1 : 0;
}

LL_API int utf8_unlink(const char *path) noexcept {
  BOOL ok;
  if (ansi()) {
    AnsiName a(path);
    if (!a.ok) return -1;
    ok = DeleteFileA(a.a);
  } else {
    WideName n(path);
    if (!n.ok) return -1;
    ok = DeleteFileW(n.w);
  }
  if (!ok) set_mapped();
  return ok ? 0 : -1;
}

LL_API int utf8_rmdir(const char *path) noexcept {
  BOOL ok;
  if (ansi()) {
    AnsiName a(path);
    if (!a.ok) return -1;
    ok = RemoveDirectoryA(a.a);
  } else {
    WideName n(path);
    if (!n.ok) return -1;
    ok = RemoveDirectoryW(n.w);
  }
  if (!ok) set_mapped();
  return ok ? 0 : -1;
}

LL_API int utf8_chmod(const char *path, int mode) noexcept {
  int rc;
  SetLastError(0);
  if (ansi()) {
    AnsiName a(path);
    if (!a.ok) return -1;
    rc = _chmod(a.a, mode);
  } else {
    WideName n(path);
    if (!n.ok) return -1;
    rc = _wchmod(n.w, mode);
  }
  if (rc != 0 && GetLastError()) set_mapped();
  return rc == 0 ? 0 : -1;
}

LL_API int utf8_movefileex(const char *oldname, const char *newname, uint32_t flags) noexcept {
  BOOL ok;
  if (ansi()) {
    AnsiName a(oldname), b(newname);
    if (!a.ok || !b.ok) return 0;
    ok = MoveFileExA(a.a, b.a, flags);
  } else {
    WideName a(oldname), b(newname);
    if (!a.ok || !b.ok) return 0;
    ok = MoveFileExW(a.w, b.w, flags);
  }
  if (!ok) set_raw();
  return ok ? 1 : 0;
}

LL_API void *utf8_createfile(const char *path, uint32_t access, uint32_t share, void *security,
                             uint32_t disposition, uint32_t flags, void *template_file) noexcept {
  HANDLE h;
  auto *sa = static_cast<LPSECURITY_ATTRIBUTES>(security);
  if (ansi()) {
    AnsiName a(path);
    if (!a.ok) return INVALID_HANDLE_VALUE;
    h = CreateFileA(a.a, access, share, sa, disposition, flags, static_cast<HANDLE>(template_file));
  } else {
    WideName n(path);
    if (!n.ok) return INVALID_HANDLE_VALUE;
    h = CreateFileW(n.w, access, share, sa, disposition, flags, static_cast<HANDLE>(template_file));
  }
  if (h == INVALID_HANDLE_VALUE) set_raw();
  return h;
}

LL_API int utf8_createdirectory(const char *path, void *security) noexcept {
  BOOL ok;
  auto *sa = static_cast<LPSECURITY_ATTRIBUTES>(security);
  if (ansi()) {
    AnsiName a(path);
    if (!a.ok) return 0;
    ok = CreateDirectoryA(a.a, sa);
  } else {
    WideName n(path);
    if (!n.ok) return 0;
    ok = CreateDirectoryW(n.w, sa);
  }
  if (!ok) set_mapped();
  return ok ? 1 : 0;
}

LL_API int utf8_mkdir(const char *path) noexcept {
  SECURITY_ATTRIBUTES sa = {sizeof sa, nullptr, FALSE};
  return utf8_createdirectory(path, &sa) ? 0 : -1;
}

LL_API int utf8_access(const char *path) noexcept {
  if (!path) return -1;
  std::string p = path;
  if (!p.empty() && p.back() == '\\') p.pop_back();
  qz_finddata_t rec;
  intptr_t h = utf8_findfirst(p.c_str(), &rec);
  if (h == -1) return -1;
  utf8_findclose(h);
  return 0;
}

LL_API int utf8_getvolumeinfo(const char *root, char *name, uint32_t namesize, uint32_t *serial, uint32_t *maxcomp,
                              uint32_t *flags, char *fsname, uint32_t fsnamesize) noexcept {
  DWORD ser = 0, mc = 0, fl = 0;
  BOOL ok;
  if (ansi()) {
    AnsiName r(root);
    if (!r.ok) return 0;
    char vn[MAX_PATH + 1] = {}, fs[MAX_PATH + 1] = {};
    ok = GetVolumeInformationA(r.a, vn, MAX_PATH + 1, &ser, &mc, &fl, fs, MAX_PATH + 1);
    if (ok) {
      if (name && namesize) utf8_mbs(name, vn, namesize < 260 ? namesize : 260);
      if (fsname && fsnamesize) utf8_mbs(fsname, fs, fsnamesize < 260 ? fsnamesize : 260);
    }
  } else {
    WideName r(root);
    if (!r.ok) return 0;
    wchar_t vn[MAX_PATH + 1] = {}, fs[MAX_PATH + 1] = {};
    ok = GetVolumeInformationW(r.w, vn, MAX_PATH + 1, &ser, &mc, &fl, fs, MAX_PATH + 1);
    if (ok) {
      if (name && namesize) widetoutf8(reinterpret_cast<const qzwchar_t *>(vn), name, namesize);
      if (fsname && fsnamesize) widetoutf8(reinterpret_cast<const qzwchar_t *>(fs), fsname, fsnamesize);
    }
  }
  if (!ok) {
    set_raw();
    return 0;
  }
  if (serial) *serial = ser;
  if (maxcomp) *maxcomp = mc;
  if (flags) *flags = fl;
  return 1;
}

LL_API int utf8_getvolumepathname(const char *path, char *out, uint32_t size) noexcept {
  if (!path || !out || !size) return -1;
  std::string result;
  const VolOps &ops = volops();
  if (!ansi() && ops.volume_path) {
    LongName n(path);
    if (!n.ok) return -1;
    auto *w = static_cast<wchar_t *>(std::malloc(kPathBuf * sizeof(wchar_t)));
    if (!w) {
      errno = 12;
      return -1;
    }
    if (ops.volume_path(n.w, w, kPathBuf)) {
      const wchar_t *r = w;
      if (std::wcsncmp(r, L"\\\\?\\UNC\\", 8) == 0) {
        result = "\\" + to_utf8(r + 7);
      } else {
        if (std::wcsncmp(r, L"\\\\?\\", 4) == 0) r += 4;
        result = to_utf8(r);
      }
    }
    std::free(w);
  }
  if (result.empty()) {
    // The drive of the path, or the current drive.
    char letter = (path[0] && path[1] == ':') ? static_cast<char>(path[0] & ~32) : static_cast<char>('A' + _getdrive() - 1);
    result = std::string(1, letter) + ":\\";
  }
  if (result.size() + 1 > size) {
    set_raw(ERROR_INSUFFICIENT_BUFFER);
    return -1;
  }
  std::memcpy(out, result.c_str(), result.size() + 1);
  return 0;
}

LL_API int utf8_getdiskfreespace(const char *root, uint32_t *spc, uint32_t *bps, uint32_t *freec,
                                 uint32_t *total) noexcept {
  DWORD a = 0, b = 0, c = 0, d = 0;
  BOOL ok;
  if (ansi()) {
    AnsiName r(root);
    if (!r.ok) return 0;
    ok = GetDiskFreeSpaceA(root ? r.a : nullptr, &a, &b, &c, &d);
  } else {
    WideName r(root);
    if (!r.ok) return 0;
    ok = GetDiskFreeSpaceW(r.w, &a, &b, &c, &d);
  }
  if (!ok) {
    set_raw();
    return 0;
  }
  if (spc) *spc = a;
  if (bps) *bps = b;
  if (freec) *freec = c;
  if (total) *total = d;
  return 1;
}

LL_API int utf8_getpathtarget(const char *path, char *out, uint32_t size) noexcept {
  if (!path || !out || !size) return -1;
  const bool drive_root = path[0] && path[1] == ':' && path[2] == '\\' && path[3] == 0;
  std::string target;
  if (drive_root) {
    std::string net;
    if (!network_name(path[0], net)) return -1;  // errno set by the lookup
    target = net;
  } else if (ansi()) {
    target = path;
  } else {
    WideName n(path);
    if (!n.ok) return -1;
    HANDLE h = CreateFileW(n.w, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0x2300000, nullptr);
    if (h == INVALID_HANDLE_VALUE) {
      set_raw();
      return -1;
    }
    unsigned char data[kPathBuf];
    DWORD got = 0;
    bool ok;
    Fakes *f = fakes();
    std::unique_lock<std::mutex> g(f->lock);
    if (!f->target_path.empty() && f->target_path == path) {
      got = static_cast<DWORD>(f->target_data.size() < sizeof data ? f->target_data.size() : sizeof data);
      std::memcpy(data, f->target_data.data(), got);
      ok = true;
    } else {
      g.unlock();
      ok = DeviceIoControl(h, 0x900A8, nullptr, 0, data, sizeof data, &got, nullptr) != 0;
      if (!ok) set_raw();
    }
    CloseHandle(h);
    if (!ok) return -1;
    target = reparse_target(data, got);
    if (target.empty()) {
      set_raw(ERROR_NOT_A_REPARSE_POINT);
      return -1;
    }
  }
  if (target.size() + 1 > size) {
    set_raw(ERROR_INSUFFICIENT_BUFFER);
    return -1;
  }
  std::memcpy(out, target.c_str(), target.size() + 1);
  return 0;
}

LL_API int utf8_getmntptvname(const char *mountpoint, char *out, uint32_t size) noexcept {
  const VolOps &ops = volops();
  if (volops_missing(ops.name_for != nullptr)) return 0;
  WideName n(mountpoint);
  if (!n.ok || !out) return 0;
  wchar_t w[kPathBuf];
  if (!ops.name_for(n.w, w, kPathBuf)) {
    set_raw();
    return 0;
  }
  widetoutf8(reinterpret_cast<const qzwchar_t *>(w), out, size);
  return 1;
}

LL_API intptr_t utf8_findfirstvolmntpt(const char *volume, char *out, uint32_t size) noexcept {
  const VolOps &ops = volops();
  if (volops_missing(ops.first != nullptr)) return 0;
  WideName n(volume);
  if (!n.ok || !out) return -1;
  wchar_t w[kPathBuf];
  HANDLE h = ops.first(n.w, w, kPathBuf);
  if (h == INVALID_HANDLE_VALUE) {
    set_raw();
    return -1;
  }
  widetoutf8(reinterpret_cast<const qzwchar_t *>(w), out, size);
  return reinterpret_cast<intptr_t>(h);
}

LL_API int utf8_findnextvolmntpt(intptr_t handle, char *out, uint32_t size) noexcept {
  const VolOps &ops = volops();
  if (volops_missing(ops.next != nullptr)) return 0;
  wchar_t w[kPathBuf];
  if (!out || !ops.next(reinterpret_cast<HANDLE>(handle), w, kPathBuf)) {
    set_raw();
    return 0;
  }
  widetoutf8(reinterpret_cast<const qzwchar_t *>(w), out, size);
  return 1;
}

LL_API int utf8_findvolmntptclose(intptr_t handle) noexcept {
  const VolOps &ops = volops();
  if (volops_missing(ops.close != nullptr)) return 0;
  if (!ops.close(reinterpret_cast<HANDLE>(handle))) {
    set_raw();
    return 0;
  }
  return 1;
}

// Test seams for what Wine cannot produce.
LL_API void llt_paths_fake_reparse_entry(const char *name, uint32_t tag) noexcept {
  Fakes *f = fakes();
  std::lock_guard<std::mutex> g(f->lock);
  f->reparse_name = name ? name : "";
  f->reparse_tag = tag;
}
LL_API void llt_paths_fake_reparse_data(const char *path, const void *data, unsigned len) noexcept {
  Fakes *f = fakes();
  std::lock_guard<std::mutex> g(f->lock);
  f->target_path = path ? path : "";
  f->target_data.assign(static_cast<const char *>(data ? data : ""), data ? len : 0);
}
LL_API void llt_paths_fake_network_drive(int letter, const char *unc) noexcept {
  Fakes *f = fakes();
  std::lock_guard<std::mutex> g(f->lock);
  f->net_letter = letter & ~32;
  f->net_name = unc ? unc : "";
}
LL_API void llt_paths_hide_volmntpt(int hide) noexcept {
  Fakes *f = fakes();
  std::lock_guard<std::mutex> g(f->lock);
  f->hide_volmntpt = hide != 0;
}

}  // extern "C"

namespace ll::paths {

bool network_name(char drive, std::string &out) noexcept {
  drive = static_cast<char>(drive & ~32);
  {
    Fakes *f = fakes();
    std::lock_guard<std::mutex> g(f->lock);
    if (f->net_letter && f->net_letter == drive) {
      out = f->net_name;
      return true;
    }
  }
  wchar_t root[] = {static_cast<wchar_t>(drive), L':', L'\\', 0};
  if (GetDriveTypeW(root) != DRIVE_REMOTE) {
    set_raw(ERROR_NOT_CONNECTED);
    return false;
  }
  root[2] = 0;
  if (ansi()) {
    char local[3] = {drive, ':', 0}, remote[kPathBuf];
    DWORD len = kPathBuf;
    DWORD rc = WNetGetConnectionA(local, remote, &len);
    if (rc != NO_ERROR) {
      set_raw(rc);
      return false;
    }
    out = ansi_to_utf8(remote);
    return true;
  }
  wchar_t remote[kPathBuf];
  DWORD len = kPathBuf;
  DWORD rc = WNetGetConnectionW(root, remote, &len);
  if (rc != NO_ERROR) {
    set_raw(rc);
    return false;
  }
  out = to_utf8(remote);
  return true;
}

}  // namespace ll::paths

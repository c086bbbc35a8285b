// Program location, drives and the registry and service readers on Windows.
#include <liblocal/appdir.h>
#include <liblocal/osver.h>
#include <liblocal/syserr.h>
#include <liblocal/utf8.h>
#include <liblocal/wfile.h>

#include <direct.h>

#include <cstdlib>
#include <cstring>

#include "frame/fault.h"
#include "paths/win32/wpaths.h"

namespace ll::paths::win {

bool ansi() noexcept { return Win32OSVersion() == 4; }

WideName::WideName(const char *utf8) noexcept {
  if (!utf8 || std::strlen(utf8) >= kPathBuf) return;
  ok = utf8towide(utf8, reinterpret_cast<qzwchar_t *>(w)) != 0;
}

AnsiName::AnsiName(const char *utf8) noexcept {
  if (!utf8 || std::strlen(utf8) >= kPathBuf) return;
  ansi_mbs(a, utf8, kPathBuf);
  ok = true;
}

LongName::LongName(const char *utf8) noexcept {
  WideName n(utf8);
  if (!n.ok) return;
  if (is_unc_path(utf8) || std::strncmp(utf8, "\\\\?\\", 4) == 0) {
    wcscpy(w, n.w);
    ok = true;
    return;
  }
  wchar_t full[kPathBuf];
  DWORD len = GetFullPathNameW(n.w, kPathBuf, full, nullptr);
  if (len == 0 || len >= kPathBuf) {
    wcscpy(w, n.w);  // let the call itself report the problem
    ok = true;
    return;
  }
  if (full[0] == L'\\' && full[1] == L'\\') {
    wcscpy(w, L"\\\\?\\UNC");
    wcscat(w, full + 1);
  } else {
    wcscpy(w, L"\\\\?\\");
    wcscat(w, full);
  }
  ok = true;
}

std::string to_utf8(const wchar_t *w) noexcept {
  size_t n = utf8_wcstombs(nullptr, reinterpret_cast<const qzwchar_t *>(w), 0);
  std::string s(n + 1, '\0');
  utf8_wcstombs(s.data(), reinterpret_cast<const qzwchar_t *>(w), n + 1);
  s.resize(n);
  return s;
}

std::string ansi_to_utf8(const char *a) noexcept {
  size_t n = utf8_mbs(nullptr, a, 0);
  std::string s(n + 1, '\0');
  utf8_mbs(s.data(), a, n + 1);
  s.resize(n);
  return s;
}

void set_raw(DWORD code) noexcept { errno = code ? static_cast<int>(code | 0x10000000u) : 0; }
void set_raw() noexcept { set_raw(GetLastError()); }
void set_mapped(DWORD code) noexcept {
  set_raw(code);
  errno = nt_to_posix_errno(errno);
}
void set_mapped() noexcept { set_mapped(GetLastError()); }

unsigned copy_out(const std::string &s, char *buf, unsigned size) noexcept {
  if (!buf || s.size() + 1 > size) return static_cast<unsigned>(s.size() + 1);
  std::memcpy(buf, s.c_str(), s.size() + 1);
  return static_cast<unsigned>(s.size());
}

}  // namespace ll::paths::win

namespace ll::paths {

using namespace ll::paths::win;

char native_sep() noexcept { return '\\'; }

std::string exe_path() noexcept {
  wchar_t buf[kPathBuf];
  DWORD n = GetModuleFileNameW(nullptr, buf, kPathBuf);
  if (n == 0 || n >= kPathBuf) return {};
  return to_utf8(buf);
}

bool drive_cwd(int drive, char *buf, size_t size) noexcept {
  wchar_t w[kPathBuf];
  if (!_wgetdcwd(drive, w, kPathBuf)) return false;
  std::string s = to_utf8(w);
  if (s.size() + 1 > size) return false;
  std::memcpy(buf, s.c_str(), s.size() + 1);
  return true;
}

bool short_name(const char *path, char *out, size_t size) noexcept {
  if (ansi()) {
    AnsiName a(path);
    char shortbuf[kPathBuf];
    if (!a.ok || !GetShortPathNameA(a.a, shortbuf, kPathBuf - 1)) return false;
    utf8_mbs(out, shortbuf, size);
    return true;
  }
  WideName n(path);
  wchar_t w[kPathBuf];
  if (!n.ok) return false;
  DWORD len = GetShortPathNameW(n.w, w, kPathBuf - 1);
  if (len == 0 || len >= kPathBuf - 1) return false;
  std::string s = to_utf8(w);
  if (s.size() + 1 > size) return false;
  std::memcpy(out, s.c_str(), s.size() + 1);
  return true;
}

std::string computer_name() noexcept {
  char buf[MAX_COMPUTERNAME_LENGTH + 2];
  DWORD n = sizeof buf;
  if (!GetComputerNameA(buf, &n)) return {};
  return ansi_to_utf8(buf);
}

}  // namespace ll::paths

extern "C" {

LL_API char *get_an_expanded_string_win32(const char *text) noexcept {
  if (!text) return nullptr;
  DWORD size = 1560;
  const size_t tl = std::strlen(text);
  if (tl + 1 > size) size = static_cast<DWORD>(tl + 1);
  for (;;) {
    char *buf = static_cast<char *>(std::malloc(size));
    if (!buf) return nullptr;
    DWORD need = ExpandEnvironmentStringsA(text, buf, size);
    if (need == 0) {
      std::free(buf);
      return nullptr;
    }
    if (need <= size && !(buf[0] == 0 && tl)) return buf;
    std::free(buf);
    size = need + 1;
  }
}

LL_API void *retrieve_data_from_registry_win32(void *root, const char *subkey, const char *valuename,
                                               uint32_t *type_out, uint32_t *size_out) noexcept {
  if (!subkey || !valuename) return nullptr;
  HKEY key;
  if (LL_FAULT(registry) || RegOpenKeyExA(static_cast<HKEY>(root), subkey, 0, KEY_QUERY_VALUE, &key) != ERROR_SUCCESS)
    return nullptr;
  DWORD type = 0, size = 0;
  void *data = nullptr;
  if (!LL_FAULT(registry) && RegQueryValueExA(key, valuename, nullptr, &type, nullptr, &size) == ERROR_SUCCESS) {
    data = std::malloc(size ? size : 1);
    if (data && (LL_FAULT(registry) ||
                 RegQueryValueExA(key, valuename, nullptr, &type, static_cast<BYTE *>(data), &size) != ERROR_SUCCESS)) {
      std::free(data);
      data = nullptr;
    }
  }
  RegCloseKey(key);
  if (data) {
    if (type_out) *type_out = type;
    if (size_out) *size_out = size;
  }
  return data;
}

LL_API char *find_path_of_service_from_service_manager_win32(const char *service) noexcept {
  if (!service) return nullptr;
  SC_HANDLE scm = OpenSCManagerA(nullptr, nullptr, 0x15);
  if (!scm) return nullptr;
  char *result = nullptr;
  if (SC_HANDLE svc = OpenServiceA(scm, service, SERVICE_QUERY_CONFIG)) {
    DWORD need = 0;
    if (!QueryServiceConfigA(svc, nullptr, 0, &need) && GetLastError() == ERROR_INSUFFICIENT_BUFFER) {
      auto *cfg = static_cast<QUERY_SERVICE_CONFIGA *>(std::malloc(need));
      if (cfg && QueryServiceConfigA(svc, cfg, need, &need) && cfg->lpBinaryPathName && *cfg->lpBinaryPathName)
        result = strdup(cfg->lpBinaryPathName);
      std::free(cfg);
    }
    CloseServiceHandle(svc);
  }
  CloseServiceHandle(scm);
  return result;
}

LL_API uint32_t get_registry_ulong(const char *subkey, const char *valuename) noexcept {
  if (!subkey || !valuename) return 0;
  HKEY key;
  if (LL_FAULT(registry) || RegOpenKeyExA(HKEY_LOCAL_MACHINE, subkey, 0, KEY_READ, &key) != ERROR_SUCCESS) return 0;
  char text[301] = {};
  DWORD size = 300, type = 0;
  LONG rc = LL_FAULT(registry) ? static_cast<LONG>(ll::fault::code(ll::fault::Kind::registry))
                                : RegQueryValueExA(key, valuename, nullptr, &type, reinterpret_cast<BYTE *>(text), &size);
  RegCloseKey(key);
  if (rc != ERROR_SUCCESS) return 0;
  text[300] = 0;
  return static_cast<uint32_t>(inet_addr(text));
}

}  // extern "C"

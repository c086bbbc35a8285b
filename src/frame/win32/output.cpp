// The output layer on Windows: consoles are character devices, the console
// side is the OEM code page, services write through the system handles.
#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "frame/output.h"
#include "frame/win32/win.h"
#include <liblocal/osver.h>
#include <liblocal/utf8.h>

namespace ll::os {

bool is_console(int fd) noexcept {
  const intptr_t h = _get_osfhandle(fd);
  if (h == -1) return false;
  return GetFileType(reinterpret_cast<HANDLE>(h)) == FILE_TYPE_CHAR;
}

int stream_fd(FILE *stream) noexcept { return stream ? _fileno(stream) : -1; }

// A service runs without a user profile: HOMEDRIVE is not set.
bool run_by_service() noexcept {
  if (Win32OSVersion() == 4) return false;
  return GetEnvironmentVariableW(L"HOMEDRIVE", nullptr, 0) == 0;
}

int write_std(int which, const char *text, size_t len) noexcept {
  HANDLE h = GetStdHandle(which == 2 ? STD_ERROR_HANDLE : STD_OUTPUT_HANDLE);
  if (h == INVALID_HANDLE_VALUE || h == nullptr) return -1;
  if (GetFileType(h) == FILE_TYPE_DISK) SetFilePointer(h, 0, nullptr, FILE_END);
  DWORD done = 0;
  if (!WriteFile(h, text, static_cast<DWORD>(len), &done, nullptr)) return -1;
  return static_cast<int>(done);
}

bool executable_dir(char *out, size_t size) noexcept {
  std::vector<wchar_t> path(32768);
  const DWORD n = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
  if (n == 0 || n >= path.size()) return false;
  std::vector<wchar_t> full(32768);
  const DWORD m = GetFullPathNameW(path.data(), 32768, full.data(), nullptr);
  const wchar_t *use = (m > 0 && m < 32768) ? full.data() : path.data();
  std::string s = ll::win::narrow(use);
  const size_t slash = s.find_last_of('\\');
  if (slash == std::string::npos || slash + 2 > size) return false;
  std::memcpy(out, s.data(), slash + 1);
  out[slash + 1] = 0;
  return true;
}

FILE *fopen_utf8(const char *path, const char *mode) noexcept {
  return _wfopen(ll::win::widen(path).c_str(), ll::win::widen(mode).c_str());
}

int put_wide(const char *utf8, FILE *stream) noexcept {
  const size_t len = std::strlen(utf8);
  std::vector<wchar_t> wide(len + 1);
  utf8_mbstowcs(reinterpret_cast<qzwchar_t *>(wide.data()), utf8, len + 1);
  const int r = fputws(wide.data(), stream);
  return r < 0 ? -1 : r;
}

size_t oem_char_len(const char *s, size_t avail) noexcept {
  if (avail >= 2 && IsDBCSLeadByteEx(CP_OEMCP, static_cast<BYTE>(s[0]))) return 2;
  return 1;
}

char *read_user_line(char *out, size_t size) noexcept {
  std::vector<wchar_t> line(size);
  if (!fgetws(line.data(), static_cast<int>(size), stdin)) return nullptr;
  size_t n = wcslen(line.data());
  if (n && line[n - 1] == L'\n') line[--n] = 0;
  if (n && line[n - 1] == L'\r') line[--n] = 0;
  utf8_wcstombs(out, reinterpret_cast<const qzwchar_t *>(line.data()), size - 1);
  return out;
}

void local_now(std::tm &out) noexcept {
  const std::time_t now = std::time(nullptr);
  localtime_s(&out, &now);
}

}  // namespace ll::os

// Frame services on Windows.
#include "frame/os.h"

#include <cstdio>
#include <cstdlib>

#include "frame/win32/win.h"

namespace ll::win {
std::wstring widen(const char *s) {
  if (!s) return {};
  int n = MultiByteToWideChar(CP_UTF8, 0, s, -1, nullptr, 0);
  if (n <= 0) return {};
  std::wstring w(static_cast<size_t>(n), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, s, -1, w.data(), n);
  w.resize(static_cast<size_t>(n - 1));
  return w;
}
std::string narrow(const wchar_t *w) {
  if (!w) return {};
  int n = WideCharToMultiByte(CP_UTF8, 0, w, -1, nullptr, 0, nullptr, nullptr);
  if (n <= 0) return {};
  std::string s(static_cast<size_t>(n), '\0');
  WideCharToMultiByte(CP_UTF8, 0, w, -1, s.data(), n, nullptr, nullptr);
  s.resize(static_cast<size_t>(n - 1));
  return s;
}
}  // namespace ll::win

namespace ll::os {

uint32_t process_id() noexcept { return GetCurrentProcessId(); }
uint32_t thread_id() noexcept { return GetCurrentThreadId(); }
uint32_t tick_ms() noexcept { return GetTickCount(); }
void sleep_ms(uint32_t ms) noexcept { Sleep(ms); }

std::string temp_dir() noexcept {
  wchar_t buf[MAX_PATH + 2];
  DWORD n = GetTempPathW(MAX_PATH + 1, buf);
  if (n == 0 || n > MAX_PATH) return "C:\\TEMP";
  while (n > 3 && (buf[n - 1] == L'\\' || buf[n - 1] == L'/')) buf[--n] = 0;
  return win::narrow(buf);
}

const char *dir_sep() noexcept { return "\\"; }

void ids(long &ruid, long &euid, long &rgid, long &egid) noexcept {
  // Windows has no numeric user ids; the product has always seen zeros.
  ruid = euid = rgid = egid = 0;
}

void at_exit(void (*fn)()) noexcept { std::atexit(fn); }

void process_area_created() noexcept {
  WSADATA data;
  WSAStartup(MAKEWORD(1, 1), &data);  // failure is reported by the socket layer when used
}

void process_area_destroyed() noexcept { WSACleanup(); }

void install_fork_hook(void (*)()) noexcept {}

bool read_and_delete(const char *path, std::string &out, size_t max) noexcept {
  std::wstring w = win::widen(path);
  FILE *f = _wfopen(w.c_str(), L"rb");
  if (!f) return false;
  out.assign(max, '\0');
  size_t n = fread(out.data(), 1, max, f);
  out.resize(n);
  fclose(f);
  _wunlink(w.c_str());
  return true;
}

}  // namespace ll::os

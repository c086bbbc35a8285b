// The error-number space on Windows: last-error codes marked with the flag
// bit, their system messages, and the Winsock error mapping.
#include <cerrno>
#include <cstring>

#include "frame/syserr.h"
#include "frame/win32/win.h"
#include <liblocal/osver.h>
#include <liblocal/utf8.h>

namespace ll {
namespace os {

int last_error() noexcept { return static_cast<int>(GetLastError()); }

bool system_message(int code, char *out, size_t size) noexcept {
  const DWORD c = static_cast<DWORD>(code);
  // Messages are fetched without their inserts: no arguments go with them.
  const DWORD flags = FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS;
  if (Win32OSVersion() != 4) {
    wchar_t *text = nullptr;
    DWORD n = FormatMessageW(flags | FORMAT_MESSAGE_FROM_SYSTEM, nullptr, c, GetUserDefaultLangID(),
                             reinterpret_cast<wchar_t *>(&text), 0, nullptr);
    if (n == 0) {
      if (HMODULE lib = LoadLibraryW(L"ntdsbmsg.dll")) {
        n = FormatMessageW(flags | FORMAT_MESSAGE_FROM_HMODULE, lib, c, GetUserDefaultLangID(),
                           reinterpret_cast<wchar_t *>(&text), 0, nullptr);
        FreeLibrary(lib);
      }
    }
    if (n == 0 || !text) return false;
    // The library's 16-bit wide characters are wchar_t here.
    utf8_wcstombs(out, reinterpret_cast<const qzwchar_t *>(text), size - 1);
    LocalFree(text);
    return true;
  }
  char *text = nullptr;
  DWORD n = FormatMessageA(flags | FORMAT_MESSAGE_FROM_SYSTEM, nullptr, c, 0, reinterpret_cast<char *>(&text), 0,
                           nullptr);
  if (n == 0 || !text) return false;
  utf8_mbs(out, text, size);
  LocalFree(text);
  return true;
}

const char *runtime_text(int code) noexcept { return std::strerror(code); }

int common_errno(int syscode) noexcept {
  switch (syscode) {
    case ERROR_FILE_NOT_FOUND: case ERROR_PATH_NOT_FOUND: return 2;
    case ERROR_LOCK_VIOLATION: return 11;
    case ERROR_FILE_EXISTS: case ERROR_ALREADY_EXISTS: return 17;
    default: return -1;
  }
}

}  // namespace os

int socket_errno(int e) noexcept {
  switch (e) {
    case 0: case WSAEINTR: return 4;
    case WSAEBADF: return 9;
    case WSAEACCES: return 13;
    case WSAEFAULT: return 14;
    case WSAEINVAL: return 22;
    case WSAEMFILE: return 24;
    case WSAENOBUFS: case 155: return 135;  // retried like "would block"
    case WSAENAMETOOLONG: return 38;
    case WSAENOTEMPTY: return 41;
    default: return e >= 10000 ? e - 9900 : e;
  }
}

}  // namespace ll

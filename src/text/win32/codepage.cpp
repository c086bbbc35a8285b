// Code pages on Windows: the console side is the OEM code page.
#include <cstdio>
#include <cstring>
#include <clocale>
#include <vector>

#include "frame/win32/win.h"
#include <liblocal/utf8.h>

extern "C" {

LL_API int oem_to_utf8(const char *s, char *out, size_t size) noexcept {
  if (!out || !size) return 0;
  *out = 0;
  if (!s) return 0;
  wchar_t wide[4096];
  int n = MultiByteToWideChar(CP_OEMCP, 0, s, -1, wide, 4095);
  if (n <= 0) return 0;  // empty result
  wide[4095] = 0;
  return static_cast<int>(utf8_wcstombs(out, wide, size));
}

LL_API int utf8_to_oem(const char *s, char *out, size_t size) noexcept {
  if (!s || !out || !size) return -1;
  const size_t len = std::strlen(s);
  std::vector<wchar_t> wide(len + 1);
  utf8_mbstowcs(wide.data(), s, len + 1);
  int n = WideCharToMultiByte(CP_OEMCP, 0, wide.data(), -1, out, static_cast<int>(size), "|", nullptr);
  if (n <= 0) {
    out[0] = 0;
    return -1;
  }
  return n - 1;
}

LL_API const char *get_ansi_codeset(void) noexcept {
  // The code page of the runtime's locale (what mbrtowc and wcrtomb use),
  // which is the system's ANSI code page until the program calls setlocale.
  static thread_local char name[16];
  unsigned cp = ___lc_codepage_func();
  std::snprintf(name, sizeof name, "CP%u", cp ? cp : GetACP());
  return name;
}

}  // extern "C"

// Code pages on POSIX: the ANSI side and the terminal (OEM) side are both the
// multibyte encoding of the current locale.
#include <langinfo.h>

#include <liblocal/utf8.h>

extern "C" {

LL_API int oem_to_utf8(const char *s, char *out, size_t size) noexcept {
  if (!out || !size) return 0;
  if (!s) {
    *out = 0;
    return 0;
  }
  return static_cast<int>(utf8_mbs(out, s, size));
}

LL_API int utf8_to_oem(const char *s, char *out, size_t size) noexcept {
  if (!s || !out || !size) return -1;
  return static_cast<int>(ansi_mbs(out, s, size));
}

LL_API const char *get_ansi_codeset(void) noexcept { return nl_langinfo(CODESET); }

}  // extern "C"

// Shared pieces of the Windows back-end of the paths family: name conversion
// at the platform boundary and the two error conventions.
#pragma once
#include <cerrno>
#include <string>

#include "frame/win32/win.h"
#include "paths/paths.h"

namespace ll::paths::win {

// True on the class without wide-character file calls (Windows 9x).
bool ansi() noexcept;

// A UTF-8 name converted for the W calls (at most 4095 characters) or, on
// the ANSI class, for the A calls. ok is false when it does not convert.
struct WideName {
  wchar_t w[kPathBuf];
  bool ok = false;
  explicit WideName(const char *utf8) noexcept;
};
struct AnsiName {
  char a[kPathBuf];
  bool ok = false;
  explicit AnsiName(const char *utf8) noexcept;
};
// The W name with "\\?\" in front (made absolute first) unless it is UNC or
// already in the long form.
struct LongName {
  wchar_t w[kPathBuf + 8];
  bool ok = false;
  explicit LongName(const char *utf8) noexcept;
};

std::string to_utf8(const wchar_t *w) noexcept;
std::string ansi_to_utf8(const char *a) noexcept;

// errno = the last error marked with bit 28 (raw), or its POSIX number (mapped).
void set_raw() noexcept;
void set_mapped() noexcept;
void set_raw(DWORD code) noexcept;
void set_mapped(DWORD code) noexcept;

// Copies s into buf of size bytes; returns the length, or the size needed
// (length + 1) when it does not fit, as the Win32 length-returning calls do.
unsigned copy_out(const std::string &s, char *buf, unsigned size) noexcept;

}  // namespace ll::paths::win

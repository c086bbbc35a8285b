// Libraries loaded by name on Windows: LoadLibrary with the critical-error
// and file-open boxes off for the calling thread, GetProcAddress.
#include <string>

#include "frame/win32/win.h"
#include "proc/dynlib.h"

namespace ll::dynlib::os {
namespace {
// The loader wants backslashes in a path.
std::wstring wide_path(const char *file) {
  std::wstring w = win::widen(file);
  for (auto &c : w)
    if (c == L'/') c = L'\\';
  return w;
}
}  // namespace

bool exists(const char *file) noexcept {
  const DWORD a = GetFileAttributesW(wide_path(file).c_str());
  return a != INVALID_FILE_ATTRIBUTES && !(a & FILE_ATTRIBUTE_DIRECTORY);
}

void *load(const char *file) noexcept {
  const std::wstring w = wide_path(file);
  if (w.empty()) return nullptr;
  DWORD old = 0;
  const bool quiet = SetThreadErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX, &old) != 0;
  HMODULE h = LoadLibraryW(w.c_str());
  if (quiet) SetThreadErrorMode(old, nullptr);
  return reinterpret_cast<void *>(h);
}

void *symbol(void *module, const char *routine) noexcept {
  return reinterpret_cast<void *>(GetProcAddress(static_cast<HMODULE>(module), routine));
}

void unload(void *module) noexcept { FreeLibrary(static_cast<HMODULE>(module)); }

}  // namespace ll::dynlib::os

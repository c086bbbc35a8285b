// Optional entry points on Windows: the module is loaded (or found already
// loaded) with critical-error boxes off, and the routine looked up by name.
// The modules stay loaded for the life of the process.
#include "frame/optional.h"
#include "frame/win32/win.h"

namespace ll::optional {

void *lookup(const char *module, const char *name) noexcept {
  HMODULE m = GetModuleHandleA(module);
  if (!m) {
    UINT old = SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX);
    m = LoadLibraryExA(module, nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
    if (!m) m = LoadLibraryA(module);
    SetErrorMode(old);
  }
  if (!m) return nullptr;
  return reinterpret_cast<void *>(GetProcAddress(m, name));
}

}  // namespace ll::optional

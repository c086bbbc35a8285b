// The process environment for mkenv on Windows, read in UTF-16.
#include "frame/mkenv_os.h"

#include "frame/win32/win.h"

#include <cwchar>

namespace ll::os {

std::vector<std::string> environment() noexcept {
  std::vector<std::string> out;
  wchar_t *block = GetEnvironmentStringsW();
  if (!block) return out;
  for (const wchar_t *p = block; *p; p += std::wcslen(p) + 1) out.push_back(ll::win::narrow(p));
  FreeEnvironmentStringsW(block);
  return out;
}

bool env_names_fold_case() noexcept { return true; }

}  // namespace ll::os

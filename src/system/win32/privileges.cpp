// Process privileges on Windows: each privilege of the list that the
// process token holds is enabled; the others are left out of the answer.
#include "system/privileges.h"

#include "frame/win32/win.h"

#include <liblocal/security.h>

#include <vector>

namespace ll::priv {

int enable(unsigned wanted) noexcept {
  HANDLE token;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, &token)) return -1;
  int held = 0;
  for (unsigned bit = 1; bit & QZ_PRIV_ALL; bit <<= 1) {
    if (!(wanted & bit)) continue;
    TOKEN_PRIVILEGES tp;
    tp.PrivilegeCount = 1;
    tp.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
    std::wstring name = ll::win::widen(qz_privilege_name(bit));
    if (!LookupPrivilegeValueW(nullptr, name.c_str(), &tp.Privileges[0].Luid)) continue;
    // Success with ERROR_NOT_ALL_ASSIGNED means the token does not hold it.
    if (AdjustTokenPrivileges(token, FALSE, &tp, 0, nullptr, nullptr) && GetLastError() == ERROR_SUCCESS)
      held |= static_cast<int>(bit);
  }
  CloseHandle(token);
  return held;
}

}  // namespace ll::priv

// Operating-system class on Windows: the version call and the product type
// in the registry.
#include "system/osver.h"

#include "frame/fault.h"
#include "frame/win32/win.h"

namespace ll::sys {

int compute_class() noexcept {
  DWORD v = GetVersion();
  if (v & 0x80000000u) return (v & 0xFF) < 4 ? 1 : 4;
  HKEY key;
  if (LL_FAULT(registry) ||
      RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SYSTEM\\CurrentControlSet\\Control\\ProductOptions", 0, KEY_READ, &key) !=
          ERROR_SUCCESS)
    return 1;
  char value[10] = {0};
  DWORD size = sizeof value, type = 0;
  LONG rc = LL_FAULT(registry) ? static_cast<LONG>(ll::fault::code(ll::fault::Kind::registry))
                                : RegQueryValueExA(key, "ProductType", nullptr, &type, reinterpret_cast<BYTE *>(value), &size);
  RegCloseKey(key);
  if (rc != ERROR_SUCCESS || type != REG_SZ) return 1;
  value[sizeof value - 1] = 0;
  if (lstrcmpiA(value, "SERVERNT") == 0) return 2;
  if (lstrcmpiA(value, "LANMANNT") == 0) return 2;
  if (lstrcmpiA(value, "WINNT") == 0) return 3;
  return 1;
}

bool version(int &major, int &minor, int &platform_id) noexcept {
  OSVERSIONINFOA info;
  ZeroMemory(&info, sizeof info);
  info.dwOSVersionInfoSize = sizeof info;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  if (!GetVersionExA(&info)) return false;
#pragma GCC diagnostic pop
  major = static_cast<int>(info.dwMajorVersion);
  minor = static_cast<int>(info.dwMinorVersion);
  platform_id = static_cast<int>(info.dwPlatformId);
  return true;
}

std::string host_os_name(int os_class) noexcept {
  if (os_class == 4) return "Windows 95";
  SYSTEM_INFO si;
  GetSystemInfo(&si);
  const bool alpha = si.wProcessorArchitecture == 2;
  if (os_class == 2) return alpha ? "Windows NT Server on Alpha" : "Windows NT Server on Intel";
  return alpha ? "Windows NT Workstation on Alpha" : "Windows NT Workstation on Intel";
}

int processors() noexcept {
  SYSTEM_INFO si;
  GetSystemInfo(&si);
  return static_cast<int>(si.dwNumberOfProcessors);
}

}  // namespace ll::sys

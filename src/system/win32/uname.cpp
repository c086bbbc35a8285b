// The system names on Windows: the version the operating-system class
// family reads, the build number, the host name and the architecture.
#include "system/uname.h"

#include "frame/win32/win.h"

#include <string>

#include <liblocal/osver.h>

namespace ll::sys {

bool system_names(Names &out) noexcept {
  out.sysname = "Windows_NT";
  wchar_t host[256];
  DWORD n = 256;
  if (GetComputerNameExW(ComputerNameDnsHostname, host, &n) && n) {
    out.nodename = ll::win::narrow(host);
  } else {
    n = 256;
    if (GetComputerNameW(host, &n)) out.nodename = ll::win::narrow(host);
  }
  const int major = Win32OSMajorVersionNumber(), minor = Win32OSMinorVersionNumber();
  out.release = std::to_string(major) + "." + std::to_string(minor < 0 ? 0 : minor);
  OSVERSIONINFOA info;
  ZeroMemory(&info, sizeof info);
  info.dwOSVersionInfoSize = sizeof info;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  out.version = GetVersionExA(&info) ? std::to_string(info.dwBuildNumber & 0xFFFF) : "0";
#pragma GCC diagnostic pop
  SYSTEM_INFO si;
  GetNativeSystemInfo(&si);
  switch (si.wProcessorArchitecture) {
    case PROCESSOR_ARCHITECTURE_AMD64: out.machine = "x86_64"; break;
    case PROCESSOR_ARCHITECTURE_INTEL: out.machine = "i686"; break;
    case 12 /* ARM64 */: out.machine = "aarch64"; break;
    case PROCESSOR_ARCHITECTURE_ARM: out.machine = "arm"; break;
    default: out.machine = "unknown"; break;
  }
  return true;
}

}  // namespace ll::sys

// The system names of the uname record, from each back-end
// (system/posix/uname.cpp, system/win32/uname.cpp).
#pragma once
#include <string>

namespace ll::sys {
struct Names {
  std::string sysname, nodename, release, version, machine;
};
// false (errno set) when the system cannot be asked.
bool system_names(Names &out) noexcept;
}  // namespace ll::sys

// Operating-system questions answered by each back-end.
#pragma once
#include <string>

namespace ll::sys {
int compute_class() noexcept;  // 1..4, see liblocal/osver.h
// false when the version cannot be read
bool version(int &major, int &minor, int &platform_id) noexcept;
// description name of this host for the given class
std::string host_os_name(int os_class) noexcept;
int processors() noexcept;     // 0 when unknown
}  // namespace ll::sys

// No operating-system cluster service on POSIX systems: only the map script
// describes a cluster here.
#include "cluster/native.h"

namespace ll::cluster::native {
void set_library(const char *) noexcept {}
bool load() noexcept { return false; }
bool present() noexcept { return false; }
std::vector<Group> groups() noexcept { return {}; }
bool is_local_virtual_host(const char *) noexcept { return false; }
bool disk_owner(const char *, std::string *) noexcept { return false; }
}  // namespace ll::cluster::native

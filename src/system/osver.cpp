// Operating-system class and version, cached for the life of the process, and
// the tests on host-description names.
#include <liblocal/osver.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "system/osver.h"

namespace {
// Plain process-wide values; a race only computes the same answer twice.
int g_class = 0;
int g_major = 0;
int g_minor = -1;
int g_platform = -1;

const char *const kServers[] = {
    "Windows NT Server on Intel", "Windows NT Server on Alpha", "AixOS", "AviionOS", "DecAxpOS",
    "HpOS", "HpMpeOS", "Linux", "Sco", "Sco v4", "SequentOS", "SgiOS", "SinixOS",
    "Solaris on Intel", "Solaris", "Solaris PPC", "SunOS", "UnixWare", "UX/4800"};
const char *const kNt[] = {"Windows NT Server on Intel", "Windows NT Server on Alpha",
                           "Windows NT Workstation on Intel", "Windows NT Workstation on Alpha"};

template <size_t N> int in_list(const char *name, const char *const (&list)[N]) {
  if (!name) return 0;
  for (const char *s : list)
    if (std::strcmp(s, name) == 0) return 1;
  return 0;
}
}  // namespace

extern "C" {

LL_API int Win32OSVersion(void) noexcept {
  // Computed once; threads asking at once compute the same answer.
  if (int c = __atomic_load_n(&g_class, __ATOMIC_ACQUIRE)) return c;
  const int c = ll::sys::compute_class();
  __atomic_store_n(&g_class, c, __ATOMIC_RELEASE);
  return c;
}

LL_API int Win32OSMajorVersionNumber(void) noexcept {
  if (int v = __atomic_load_n(&g_major, __ATOMIC_ACQUIRE)) return v;
  int major, minor, platform;
  if (!ll::sys::version(major, minor, platform)) return 0;
  __atomic_store_n(&g_major, major, __ATOMIC_RELEASE);
  return major;
}

LL_API int Win32OSMinorVersionNumber(void) noexcept {
  if (int v = __atomic_load_n(&g_minor, __ATOMIC_ACQUIRE); v != -1) return v;
  int major, minor, platform;
  if (!ll::sys::version(major, minor, platform)) return -1;
  __atomic_store_n(&g_minor, minor, __ATOMIC_RELEASE);
  return minor;
}

LL_API int Win32OSPlatformId(void) noexcept {
  if (int v = __atomic_load_n(&g_platform, __ATOMIC_ACQUIRE); v != -1) return v;
  int major, minor, platform;
  if (!ll::sys::version(major, minor, platform)) return -1;
  __atomic_store_n(&g_platform, platform, __ATOMIC_RELEASE);
  return platform;
}

LL_API int is_server_OS(const char *name) noexcept { return in_list(name, kServers); }
LL_API int is_nt_OS(const char *name) noexcept { return in_list(name, kNt); }

LL_API int is_cluster_type(const char *name, const char *type) noexcept {
  if (!type) return 0;
  return is_server_OS(name) && std::strcmp(type, "0") == 0;
}

LL_API const char *qz_host_os_name(void) noexcept {
  static const std::string name = ll::sys::host_os_name(Win32OSVersion());
  return name.c_str();
}

LL_API int get_num_processors(void) noexcept {
  int n = ll::sys::processors();
  errno = 0;
  return n > 0 ? n : -1;
}

// Test seam: forces the class answer (0 forgets it and asks the system again).
LL_API void llt_force_os_class(int c) noexcept { __atomic_store_n(&g_class, c, __ATOMIC_RELEASE); }

}  // extern "C"

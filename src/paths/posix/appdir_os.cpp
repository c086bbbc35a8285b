// Program location and the Windows-only helpers on POSIX.
#include <liblocal/appdir.h>

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "paths/paths.h"

namespace ll::paths {

char native_sep() noexcept { return '/'; }

std::string exe_path() noexcept {
  char buf[kPathBuf];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) return {};
  buf[n] = 0;
  return buf;
}

bool drive_cwd(int, char *buf, size_t size) noexcept { return getcwd(buf, size) != nullptr; }

bool short_name(const char *, char *, size_t) noexcept { return false; }

std::string computer_name() noexcept {
  char buf[256];
  if (gethostname(buf, sizeof buf - 1) != 0) return {};
  buf[sizeof buf - 1] = 0;
  return buf;
}

}  // namespace ll::paths

extern "C" {

// %NAME% references are replaced by the environment's values; unknown names
// and a lone percent sign stay as they are (as on Windows).
LL_API char *get_an_expanded_string_win32(const char *text) noexcept {
  if (!text) return nullptr;
  std::string out;
  for (const char *p = text; *p;) {
    const char *close = *p == '%' ? std::strchr(p + 1, '%') : nullptr;
    if (close && close > p + 1) {
      std::string name(p + 1, close);
      if (const char *v = std::getenv(name.c_str())) {
        out += v;
        p = close + 1;
        continue;
      }
      out.append(p, close);
      p = close;
      continue;
    }
    out += *p++;
  }
  return strdup(out.c_str());
}

LL_API void *retrieve_data_from_registry_win32(void *, const char *, const char *, uint32_t *,
                                               uint32_t *) noexcept {
  return nullptr;
}

LL_API char *find_path_of_service_from_service_manager_win32(const char *) noexcept { return nullptr; }

LL_API uint32_t get_registry_ulong(const char *, const char *) noexcept { return 0; }

}  // extern "C"

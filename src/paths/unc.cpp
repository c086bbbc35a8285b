// UNC names: recognising "\\host\share\..." and device names, taking them apart.
#include <liblocal/wfile.h>

#include <cstring>
#include <string>

#include "paths/paths.h"

namespace ll::paths {
bool has_unc_prefix(const char *name) noexcept {
  return is_unc_path(name) || std::strncmp(name, "\\??\\UNC\\", 8) == 0;
}
}  // namespace ll::paths

using namespace ll::paths;

extern "C" {

LL_API int is_unc_path(const char *name) noexcept {
  if (!name || name[0] != '\\' || name[1] != '\\') return 0;
  return name[2] != '?' || prefix_nocase(name + 3, "\\UNC\\");
}

LL_API const char *unc_skip_prefix(const char *name) noexcept {
  if (!name) return name;
  if (prefix_nocase(name, "\\\\?\\UNC\\")) return name + 8;
  if (std::strncmp(name, "\\\\?\\", 4) == 0) return name + 4;
  if (std::strncmp(name, "\\\\", 2) == 0) return name + 2;
  if (std::strncmp(name, "\\??\\UNC\\", 8) == 0) return name + 8;
  return name;
}

LL_API int get_unc_obj_type(const char *name) noexcept {
  if (!name || !has_unc_prefix(name)) return 0;
  const char *slash = std::strchr(unc_skip_prefix(name), '\\');
  if (!slash) return 0;
  const char *obj = slash + 1;
  if (prefix_nocase(obj, "pipe\\")) return 2;
  if (prefix_nocase(obj, "PhysicalDrive") || (obj[0] && obj[1] == ':')) return 3;
  if (prefix_nocase(obj, "Tape")) return 4;
  return 1;
}

LL_API const char *get_unc_file_path(const char *name) noexcept {
  if (!name) return nullptr;
  const char *host_end = std::strchr(unc_skip_prefix(name), '\\');
  if (!host_end) return nullptr;
  return std::strchr(host_end + 1, '\\');
}

LL_API int get_unc_host(const char *name, char *dst, size_t len) noexcept {
  if (dst && len) dst[0] = 0;
  if (!name || !is_unc_path(name)) return 0;
  const char *host = unc_skip_prefix(name);
  const char *end = std::strchr(host, '\\');
  const std::string h(host, end ? static_cast<size_t>(end - host) : std::strlen(host));
  const std::string me = computer_name();
  // A computer name also matches up to its first dot (POSIX host names may be qualified).
  const std::string me_short = me.substr(0, me.find('.'));
  const bool local = h == "." || (!me.empty() && (equal_nocase(h.c_str(), me.c_str()) ||
                                                  equal_nocase(h.c_str(), me_short.c_str())));
  if (dst && len) {
    const std::string &src = local ? me : h;
    const size_t n = src.size() < len - 1 ? src.size() : len - 1;
    std::memcpy(dst, src.data(), n);
    dst[n] = 0;
  }
  return local ? 1 : 0;
}

}  // extern "C"

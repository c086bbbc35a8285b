// Frame services that read the same on every back-end.
#include "frame/os.h"

#include <cstdlib>

namespace ll::os {

bool get_env(const char *name, std::string &out) noexcept {
  const char *v = std::getenv(name);
  if (!v) return false;
  out = v;
  return true;
}

const char *get_env_ptr(const char *name) noexcept { return std::getenv(name); }

}  // namespace ll::os

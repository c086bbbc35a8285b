// The process environment for mkenv on POSIX.
#include "frame/mkenv_os.h"

extern char **environ;

namespace ll::os {

std::vector<std::string> environment() noexcept {
  std::vector<std::string> out;
  for (char **e = environ; e && *e; ++e) out.emplace_back(*e);
  return out;
}

bool env_names_fold_case() noexcept { return false; }

}  // namespace ll::os

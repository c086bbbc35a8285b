// Setting environment variables on POSIX with the runtime's _putenv meaning:
// the text is copied, and "NAME=" removes NAME.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "frame/output.h"

namespace ll::os {

int put_env(const char *s) noexcept {
  const char *eq = std::strchr(s, '=');
  if (!eq || eq == s) {
    errno = EINVAL;
    return -1;
  }
  std::string name(s, static_cast<size_t>(eq - s));
  if (!eq[1]) return unsetenv(name.c_str()) == 0 ? 0 : -1;
  return setenv(name.c_str(), eq + 1, 1) == 0 ? 0 : -1;
}

}  // namespace ll::os

// Wide paths on POSIX: no prefixes exist; the name is converted as it stands.
#include "paths/widepath.h"

#include <cerrno>
#include <cstring>

#include <liblocal/utf8.h>

namespace ll::paths {

int wide_path(const char *path, qzwchar_t *out, size_t count) noexcept {
  if (utf8_mbslen(path) < 0) {
    errno = EINVAL;
    return -1;
  }
  if (static_cast<size_t>(utf8_mbslen(path)) + 1 > count) {
    errno = ENAMETOOLONG;
    return -1;
  }
  return static_cast<int>(utf8_mbstowcs(out, path, count));
}

}  // namespace ll::paths

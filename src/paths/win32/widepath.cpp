// Wide paths on Windows: the long form the wide file calls use ("\\?\" in
// front of an absolute name, "\\?\UNC\" in front of a network share), none
// on the class without wide file calls.
#include "paths/widepath.h"

#include <cerrno>
#include <cstring>
#include <cwchar>

#include <liblocal/utf8.h>
#include <liblocal/wfile.h>

#include "paths/win32/wpaths.h"

namespace ll::paths {

namespace {
int put(const wchar_t *w, qzwchar_t *out, size_t count) {
  size_t n = std::wcslen(w);
  if (n + 1 > count) {
    errno = ENAMETOOLONG;
    return -1;
  }
  std::memcpy(out, w, (n + 1) * sizeof(wchar_t));
  return static_cast<int>(n);
}
}  // namespace

int wide_path(const char *path, qzwchar_t *out, size_t count) noexcept {
  if (utf8_mbslen(path) < 0) {
    errno = EINVAL;
    return -1;
  }
  if (win::ansi()) {
    win::WideName n(path);
    if (!n.ok) return errno = ENAMETOOLONG, -1;
    return put(n.w, out, count);
  }
  // A share name written with backslashes: made whole (".." and ".") and
  // given the network form of the long prefix. Devices ("\\.\x") and names
  // already long stay as they are.
  if (get_unc_obj_type(path) == QZ_UNC_SHARE && std::strncmp(path, "\\\\?\\", 4) != 0 &&
      std::strncmp(path, "\\\\.\\", 4) != 0) {
    win::WideName n(path);
    if (!n.ok) return errno = ENAMETOOLONG, -1;
    wchar_t full[kPathBuf + 8] = L"\\\\?\\UNC";
    DWORD len = GetFullPathNameW(n.w, kPathBuf, full + 7, nullptr);
    if (len == 0 || len >= kPathBuf || full[7] != L'\\' || full[8] != L'\\') return put(n.w, out, count);
    std::memmove(full + 7, full + 8, len * sizeof(wchar_t));  // one backslash of the two goes
    return put(full, out, count);
  }
  win::LongName n(path);
  if (!n.ok) return errno = ENAMETOOLONG, -1;
  return put(n.w, out, count);
}

}  // namespace ll::paths

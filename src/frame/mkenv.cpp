// mkenv: an environment for a child process, in the vector, byte-block or
// wide-block form.
#include <liblocal/env.h>
#include <liblocal/utf8.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "frame/mkenv_os.h"

namespace {

// The name of "NAME=VALUE"; a leading "=" belongs to the name (the hidden
// per-drive variables of Windows, "=C:=C:\dir"). Empty when there is no "=".
std::string_view name_of(std::string_view s) {
  size_t eq = s.find('=', 1);
  return eq == std::string_view::npos ? std::string_view() : s.substr(0, eq);
}

bool same_name(std::string_view a, std::string_view b, bool fold) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    unsigned char x = static_cast<unsigned char>(a[i]), y = static_cast<unsigned char>(b[i]);
    if (fold && x < 0x80 && y < 0x80) {
      if (x >= 'a' && x <= 'z') x = static_cast<unsigned char>(x - 32);
      if (y >= 'a' && y <= 'z') y = static_cast<unsigned char>(y - 32);
    }
    if (x != y) return false;
  }
  return true;
}

void *fail(int e) {
  errno = e;
  return nullptr;
}

}  // namespace

extern "C" LL_API void *mkenv(const char *const *set, int form, size_t *size) noexcept {
  if (form != QZ_ENV_VECTOR && form != QZ_ENV_BLOCK && form != QZ_ENV_WIDE) return fail(EINVAL);
  const bool fold = ll::os::env_names_fold_case();
  std::vector<std::string_view> given;
  for (const char *const *p = set; p && *p; ++p) {
    std::string_view s(*p);
    if (s.empty() || s[0] == '=' || s.find('=') == std::string_view::npos) return fail(EINVAL);
    std::string_view n = name_of(s);
    bool dup = false;
    for (std::string_view g : given) dup = dup || same_name(name_of(g), n, fold);
    if (!dup) given.push_back(s);
  }
  const std::vector<std::string> parent = ll::os::environment();
  std::vector<std::string_view> all = given;
  for (const std::string &e : parent) {
    std::string_view n = name_of(e);
    if (n.empty()) continue;
    bool dup = false;
    for (std::string_view g : given) dup = dup || same_name(name_of(g), n, fold);
    if (!dup) all.push_back(e);
  }

  size_t bytes = 0;
  if (form == QZ_ENV_WIDE) {
    std::vector<qzwchar_t> wide;
    for (std::string_view s : all) {
      size_t at = wide.size();
      wide.resize(at + s.size() + 1);
      size_t n = utf8_mbstowcs(wide.data() + at, std::string(s).c_str(), s.size() + 1);
      wide.resize(at + n + 1);
    }
    wide.push_back(0);
    if (all.empty()) wide.push_back(0);
    bytes = wide.size() * sizeof(qzwchar_t);
    void *out = std::malloc(bytes);
    if (!out) return fail(ENOMEM);
    std::memcpy(out, wide.data(), bytes);
    if (size) *size = bytes;
    return out;
  }
  size_t text = 0;
  for (std::string_view s : all) text += s.size() + 1;
  const size_t head = form == QZ_ENV_VECTOR ? (all.size() + 1) * sizeof(char *) : 0;
  bytes = head + text + (form == QZ_ENV_BLOCK ? (all.empty() ? 2 : 1) : 0);
  char *out = static_cast<char *>(std::malloc(bytes));
  if (!out) return fail(ENOMEM);
  char **vec = reinterpret_cast<char **>(out);
  char *p = out + head;
  for (size_t i = 0; i < all.size(); ++i) {
    if (form == QZ_ENV_VECTOR) vec[i] = p;
    std::memcpy(p, all[i].data(), all[i].size());
    p += all[i].size();
    *p++ = 0;
  }
  if (form == QZ_ENV_VECTOR)
    vec[all.size()] = nullptr;
  else
    std::memset(p, 0, static_cast<size_t>(out + bytes - p));
  if (size) *size = bytes;
  return out;
}

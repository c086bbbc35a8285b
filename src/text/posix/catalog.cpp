// Catalogs on POSIX systems: X/Open message catalogs (gencat, catopen,
// catgets), addressed by set and number.
#include <nl_types.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstring>

#include "text/catalog_backend.h"
#include "frame/fault.h"

namespace ll::text::catalog_os {

const char *suffix() noexcept { return ".cat"; }
char separator() noexcept { return '/'; }

std::string program_dir() noexcept {
  char buf[PATH_MAX + 1];
  const ssize_t n = readlink("/proc/self/exe", buf, PATH_MAX);
  if (n <= 0) return ".";
  std::string p(buf, static_cast<size_t>(n));
  const size_t slash = p.rfind('/');
  return slash == std::string::npos ? "." : (slash == 0 ? "/" : p.substr(0, slash));
}

void *open(const std::string &path) noexcept {
  try {
    std::string candidates[2];
    int n = 0;
    if (!path.empty() && path[0] == '/') {
      candidates[n++] = path;
    } else {
      candidates[n++] = program_dir() + "/" + path;
      // catopen reads a name without "/" through NLSPATH: keep it a path.
      candidates[n++] = path.find('/') == std::string::npos ? "./" + path : path;
    }
    for (int i = 0; i < n; ++i) {
      if (access(candidates[i].c_str(), R_OK) != 0) continue;
      if (LL_FAULT(open)) continue;
      nl_catd cd = catopen(candidates[i].c_str(), 0);
      if (cd != reinterpret_cast<nl_catd>(-1)) return cd;
    }
  } catch (...) {
  }
  return nullptr;
}

bool lookup(void *catalog, int set, int number, std::string &out) noexcept {
  const char *t = catgets(static_cast<nl_catd>(catalog), set, number, nullptr);
  if (!t) return false;
  try {
    out.assign(t);
  } catch (...) {
    return false;
  }
  return true;
}

bool close(void *catalog) noexcept { return catclose(static_cast<nl_catd>(catalog)) == 0; }

}  // namespace ll::text::catalog_os

// Canonical form: the step-by-step reference, the choice of block pass for
// this processor, and the exported entry points. The pass itself is in
// canon_run.h.
#include <liblocal/path.h>
#include <liblocal/wfile.h>

#include <atomic>
#include <cstdint>
#include <cstring>

#include "paths/canon_run.h"
#include "paths/paths.h"

namespace ll::paths {
namespace {

// In a UNC name (backslashes only) raises the host, and the share of a file
// share; returns the file part that folding works on, or null when the name
// is not folded at all. Built on the exported UNC routines.
char *unc_region(char *buf, size_t len) {
  char *host = const_cast<char *>(unc_skip_prefix(buf));
  const int type = get_unc_obj_type(buf);
  char *file = const_cast<char *>(get_unc_file_path(buf));
  char *end;
  if (type == 1) {
    end = file ? file : buf + len;
  } else {
    end = std::strchr(host, kBackslash);
    if (!end) end = buf + len;
  }
  upper_range(host, end);
  return type == 1 ? file : nullptr;
}

// Folds "." and ".." components of region (which ends the string). The first
// character is never examined as part of a component.
void fold(char *region, char sep) {
  if (!*region) return;
  char *cur = region;  // a separator, or the region's first character
  char *end = region + std::strlen(region);
  while (cur < end) {
    char *c = cur + 1;
    char *e = c;
    while (e < end && *e != sep) ++e;
    const size_t n = static_cast<size_t>(e - c);
    if (n == 1 && c[0] == '.') {
      std::memmove(cur, e, static_cast<size_t>(end - e) + 1);
      end -= e - cur;
      continue;
    }
    if (n == 2 && c[0] == '.' && c[1] == '.') {
      char *start = region;
      if (cur != region) {
        char *q = cur - 1;
        while (q > region && *q != sep) --q;
        if (*q == sep) start = q;
      }
      std::memmove(start, e, static_cast<size_t>(end - e) + 1);
      end -= e - start;
      cur = start;
      continue;
    }
    cur = e;
  }
}

}  // namespace

// Canonical form step by step, as the rules are written: the reference the
// block pass must agree with.
void canon_reference(const char *name, char *buf, int sep_in) noexcept {
  if (!name || !buf) return;
  const char sep = static_cast<char>(sep_in);
  if (buf != name) std::memmove(buf, name, std::strlen(name) + 1);
  char *region = buf;
  if (sep == kBackslash) {
    size_t len = 0;
    for (char *p = buf; *p; ++p, ++len)
      if (*p == '/') *p = kBackslash;
    if (len && buf[len - 1] == '"') buf[--len] = 0;
    if (is_unc_path(buf)) {
      region = unc_region(buf, len);
      if (!region) return;
    } else if (char *colon = std::strchr(buf, ':')) {
      upper_range(buf, colon);
    }
  }
  // Collapse separator runs and cut trailing separators.
  char *w = region;
  for (const char *r = region; *r;) {
    if (*r == sep) {
      while (*r == sep) ++r;
      if (*r) *w++ = sep;
    } else {
      *w++ = *r++;
    }
  }
  *w = 0;
  fold(region, sep);
  if (!*buf) std::memcpy(buf, kRoot, sizeof kRoot);
}

namespace {
using Pass = CanonPass;

// The block pass for this processor: the wide one when the processor and the
// system support it, else the base block of the build. Chosen on the first
// call (which may come before the library's own initialisers have run).
void first_pass(const char *name, char *buf, char sep);
std::atomic<Pass> chosen{first_pass};
void first_pass(const char *name, char *buf, char sep) {
  Pass pass = packing_pass();
  if (!pass) pass = canon_impl<BaseBlock>;
  chosen.store(pass, std::memory_order_relaxed);
  pass(name, buf, sep);
}
}  // namespace

}  // namespace ll::paths

extern "C" {

LL_API void canon_dirsep(const char *name, char *buf, int sep) noexcept {
  if (!name || !buf) return;
  ll::paths::chosen.load(std::memory_order_relaxed)(name, buf, static_cast<char>(sep));
}

LL_API void canon(const char *name, char *buf) noexcept { canon_dirsep(name, buf, '\\'); }

// Test seams: the step-by-step form, and each block pass by number (0 words,
// 1 the base block of the build, 2 the 64-byte blocks that pack); -1 when
// this processor has no such pass.
LL_API void llt_canon_reference(const char *name, char *buf, int sep) noexcept {
  ll::paths::canon_reference(name, buf, sep);
}

LL_API int llt_canon_pass(int which, const char *name, char *buf, int sep) noexcept {
  using namespace ll::paths;
  static const Pass passes[] = {canon_impl<WordBlock>, canon_impl<BaseBlock>, packing_pass()};
  if (which < 0 || which >= static_cast<int>(sizeof passes / sizeof *passes) || !passes[which]) return -1;
  passes[which](name, buf, static_cast<char>(sep));
  return 0;
}

}  // extern "C"

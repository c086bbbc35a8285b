// Environment variables in UTF-8, and tuned numbers.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "frame/os.h"
#include "frame/output.h"
#include <liblocal/env.h>
#include <liblocal/output.h>
#include <liblocal/syserr.h>
#include <liblocal/utf8.h>

namespace ll {
namespace {

constexpr size_t kEnvBuf = 12288;
constexpr size_t kField = 128;

bool is_ascii(const char *s) {
  for (; *s; ++s)
    if (static_cast<unsigned char>(*s) & 0x80) return false;
  return true;
}

// Copies at most kField characters of [b, e) into out.
void field(char (&out)[kField + 1], const char *b, const char *e) {
  size_t n = static_cast<size_t>(e - b);
  if (n > kField) n = kField;
  std::memcpy(out, b, n);
  out[n] = 0;
}

uint32_t number(const char *s) { return static_cast<uint32_t>(std::atol(s)); }

}  // namespace

// The tuned value; 'malformed' set (and value returned) for a bad tuning string.
unsigned long getenv_ulong_checked(const char *tuning, unsigned long value_in, bool *malformed) noexcept {
  *malformed = false;
  char name[kField + 1] = "", def[kField + 1] = "", lo[kField + 1] = "", hi[kField + 1] = "";
  bool have_max = false;
  const char *eq = tuning ? std::strchr(tuning, '=') : nullptr;
  if (eq) {
    field(name, tuning, eq);
    const char *rest = eq + 1;
    const char *comma = std::strchr(rest, ',');
    if (!comma) {
      field(def, rest, rest + std::strlen(rest));
    } else {
      field(def, rest, comma);
      const char *bounds = comma + 1;
      const char *colon = std::strchr(bounds, ':');
      if (!colon) {
        field(lo, bounds, bounds + std::strlen(bounds));
      } else {
        field(lo, bounds, colon);
        field(hi, colon + 1, colon + 1 + std::strlen(colon + 1));
        have_max = true;
      }
    }
  }
  if (!name[0] || !def[0]) {
    *malformed = true;
    return value_in;
  }
  const uint32_t value = static_cast<uint32_t>(value_in);
  char *value_text = qzgetenv(name);
  // A converted value is a buffer of its own: freed once read.
  char *fresh = (value_text && value_text != os::get_env_ptr(name)) ? value_text : nullptr;
  const char *setting = value_text ? value_text : def;
  uint32_t r;
  switch (setting[0]) {
    case '%': r = number(setting + 1) * value / 100; break;
    case '<': r = std::min(value, number(setting + 1)); break;
    case '=': r = number(setting + 1); break;
    case '>': r = std::max(value, number(setting + 1)); break;
    case 'D': r = value; break;
    default: r = number(setting); break;
  }
  std::free(fresh);
  const uint32_t min = (!lo[0] || std::strcmp(lo, "*") == 0) ? 0 : number(lo);
  if (r < min)
    r = min;
  else if (have_max && hi[0] && std::strcmp(hi, "*") != 0 && r > number(hi))
    r = number(hi);
  dprintf(2, "getenv_ulong(%s, %lu) returning %lu\n", tuning, value_in, static_cast<unsigned long>(r));
  return r;
}

}  // namespace ll

extern "C" {

LL_API char *qzgetenv(const char *name) noexcept {
  if (!name) return nullptr;
  const char *v = ll::os::get_env_ptr(name);
  if (!v) return nullptr;
  if (!*v || ll::is_ascii(v)) return const_cast<char *>(v);
  auto *buf = static_cast<char *>(std::calloc(1, ll::kEnvBuf));
  if (!buf) {
    errno = 12;
    qzperror(getMyname());
    return nullptr;
  }
  utf8_mbs(buf, v, ll::kEnvBuf);
  return buf;  // the caller's to keep: never freed
}

LL_API int qzputenv(const char *s) noexcept {
  if (!s) return 0;
  if (!*s || ll::is_ascii(s)) return ll::os::put_env(s);
  auto *buf = static_cast<char *>(std::calloc(1, ll::kEnvBuf));
  if (!buf) {
    errno = 12;
    qzperror(getMyname());
    return -1;
  }
  ansi_mbs(buf, s, ll::kEnvBuf);
  const int r = ll::os::put_env(buf);
  std::free(buf);  // the runtime keeps its own copy
  return r;
}

LL_API unsigned long getenv_ulong(const char *tuning, unsigned long value) noexcept {
  bool malformed;
  const unsigned long r = ll::getenv_ulong_checked(tuning, value, &malformed);
  if (malformed) {
    printerr("getenv_ulong: improperly formated string '%s'\n", tuning ? tuning : "");
    std::abort();
  }
  return r;
}

// Test and fuzzing seam: getenv_ulong without the abort; *malformed is set
// to 1 where it would abort.
LL_API unsigned long llt_getenv_ulong(const char *tuning, unsigned long value, int *malformed) noexcept {
  bool bad;
  const unsigned long r = ll::getenv_ulong_checked(tuning, value, &bad);
  if (malformed) *malformed = bad;
  return r;
}

}  // extern "C"

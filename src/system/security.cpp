// Security identifiers in their binary form, account-name checks, and the
// exported entry points of the accounts family.
#include <liblocal/security.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "system/security.h"

namespace ll::sec {

int check_account_name(const char *name) noexcept {
  if (!name || !*name) return EINVAL;
  size_t n = 0;
  for (const unsigned char *p = reinterpret_cast<const unsigned char *>(name); *p; ++p, ++n) {
    if (n >= QZ_ACCOUNT_NAME_MAX) return ENAMETOOLONG;
    if (*p < 0x20 || *p == 0x7F) return EINVAL;
  }
  return 0;
}

int copy_out(void *out, size_t size, const void *src, size_t n) noexcept {
  if (n > size) {
    errno = ERANGE;
    return -1;
  }
  std::memcpy(out, src, n);
  return static_cast<int>(n);
}

int copy_text(char *out, size_t size, const char *text, size_t len) noexcept {
  if (len + 1 > size) {
    errno = ERANGE;
    return -1;
  }
  std::memcpy(out, text, len);
  out[len] = 0;
  return static_cast<int>(len);
}

}  // namespace ll::sec

namespace {

constexpr int kMaxSubAuth = 15;

int einval() {
  errno = EINVAL;
  return -1;
}

// A name check that sets errno; true when the name may go on.
bool name_ok(const char *name) {
  int e = ll::sec::check_account_name(name);
  if (e) errno = e;
  return e == 0;
}

}  // namespace

extern "C" {

LL_API int qz_sid_length(const void *sid) noexcept {
  if (!sid) return einval();
  const auto *b = static_cast<const unsigned char *>(sid);
  if (b[0] != 1 || b[1] > kMaxSubAuth) return einval();
  return 8 + 4 * b[1];
}

LL_API int qz_sid_equal(const void *a, const void *b) noexcept {
  const int e = errno;
  int la = qz_sid_length(a), lb = qz_sid_length(b);
  errno = e;
  return la > 0 && la == lb && std::memcmp(a, b, static_cast<size_t>(la)) == 0 ? 1 : 0;
}

LL_API int qz_sid_to_text(const void *sid, char *out, size_t size) noexcept {
  int len = qz_sid_length(sid);
  if (len < 0 || !out) return einval();
  const auto *b = static_cast<const unsigned char *>(sid);
  uint64_t auth = 0;
  for (int i = 2; i < 8; ++i) auth = auth << 8 | b[i];
  char text[16 + 11 * kMaxSubAuth + 24];
  int n = std::snprintf(text, sizeof text, auth < (1ull << 32) ? "S-1-%llu" : "S-1-0x%012llX",
                        static_cast<unsigned long long>(auth));
  for (int i = 0; i < b[1]; ++i) {
    const unsigned char *s = b + 8 + 4 * i;
    unsigned long v = s[0] | s[1] << 8 | s[2] << 16 | static_cast<unsigned long>(s[3]) << 24;
    n += std::snprintf(text + n, sizeof text - static_cast<size_t>(n), "-%lu", v);
  }
  return ll::sec::copy_text(out, size, text, static_cast<size_t>(n));
}

LL_API int qz_sid_from_text(const char *text, void *sid, size_t size) noexcept {
  if (!text || !sid || (text[0] != 'S' && text[0] != 's') || text[1] != '-' || text[2] != '1' || text[3] != '-')
    return einval();
  unsigned char b[QZ_SID_MAX] = {1};
  const char *p = text + 4;
  // A number of at most 'limit': decimal, or hexadecimal after 0x.
  auto number = [&p](uint64_t limit, uint64_t &v) {
    int base = 10;
    if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) base = 16, p += 2;
    const char *start = p;
    v = 0;
    for (;; ++p) {
      int d = *p >= '0' && *p <= '9' ? *p - '0'
              : base == 16 && *p >= 'a' && *p <= 'f' ? *p - 'a' + 10
              : base == 16 && *p >= 'A' && *p <= 'F' ? *p - 'A' + 10
                                                     : -1;
      if (d < 0) break;
      v = v * static_cast<uint64_t>(base) + static_cast<uint64_t>(d);
      if (v > limit) return false;
    }
    return p != start;
  };
  uint64_t auth;
  if (!number(0xFFFFFFFFFFFFull, auth)) return einval();
  for (int i = 7; i >= 2; --i, auth >>= 8) b[i] = static_cast<unsigned char>(auth);
  int count = 0;
  while (*p == '-') {
    ++p;
    uint64_t v;
    if (count == kMaxSubAuth || !number(0xFFFFFFFFull, v)) return einval();
    unsigned char *s = b + 8 + 4 * count++;
    for (int i = 0; i < 4; ++i, v >>= 8) s[i] = static_cast<unsigned char>(v);
  }
  if (*p) return einval();
  b[1] = static_cast<unsigned char>(count);
  return ll::sec::copy_out(sid, size, b, 8 + 4 * static_cast<size_t>(count));
}

LL_API int get_my_sid(void *sid, size_t size) noexcept {
  if (!sid) return einval();
  return ll::sec::my_sid(sid, size);
}

LL_API int get_user_sid(const char *user, const char *system, void *sid, size_t size) noexcept {
  if (!sid || !name_ok(user)) return sid ? -1 : einval();
  if (system && *system && std::strlen(system) > QZ_ACCOUNT_NAME_MAX) {
    errno = ENAMETOOLONG;
    return -1;
  }
  return ll::sec::user_sid(user, system && *system ? system : nullptr, sid, size);
}

LL_API int qz_sd_init(void *sd, size_t size) noexcept {
  if (!sd) return einval();
  return ll::sec::sd_init(sd, size);
}

LL_API int insert_sid_to_sd(void *sd, size_t size, const void *sid, uint32_t access) noexcept {
  if (!sd || qz_sid_length(sid) < 0) return einval();
  return ll::sec::sd_insert(sd, size, sid, access);
}

LL_API int qz_sd_access(const void *sd, const void *sid, uint32_t *access) noexcept {
  if (!sd || !access || qz_sid_length(sid) < 0) return einval();
  return ll::sec::sd_access(sd, sid, access);
}

LL_API int qz_set_file_sd(const char *path, const void *sd) noexcept {
  if (!path || !*path || !sd) return einval();
  return ll::sec::set_file_sd(path, sd);
}

LL_API int qz_get_file_sd(const char *path, void *sd, size_t size) noexcept {
  if (!path || !*path || !sd) return einval();
  return ll::sec::get_file_sd(path, sd, size);
}

LL_API int change_object_dacl(const char *object, const void *sid, uint32_t access) noexcept {
  if (!object || !*object || qz_sid_length(sid) < 0) return einval();
  return ll::sec::object_dacl(object, sid, access);
}

LL_API int qz_change_handle_dacl(intptr_t object, const void *sid, uint32_t access) noexcept {
  if (qz_sid_length(sid) < 0) return einval();
  return ll::sec::handle_dacl(object, sid, access);
}

LL_API int qz_get_username(char *out, size_t size) noexcept {
  if (!out) return einval();
  return ll::sec::user_name(out, size);
}

LL_API int qz_get_adminname(char *out, size_t size) noexcept {
  if (!out) return einval();
  return ll::sec::admin_name(out, size);
}

LL_API int qz_is_admin(void) noexcept { return ll::sec::is_admin() ? 1 : 0; }

LL_API int qz_get_dcname(const char *domain, char *out, size_t size) noexcept {
  if (!out || size == 0) return einval();
  if (domain && !*domain) domain = nullptr;
  if (domain && !name_ok(domain)) return -1;
  int r = ll::sec::dc_name(domain, out, size);
  if (r == 0) out[0] = 0;
  return r;
}

}  // extern "C"

// The calls this layer makes into host identity and the file-system table.
#include "cluster/cluster_internal.h"
#include "cluster/state.h"

#include <liblocal/fstab.h>
#include <liblocal/hostid.h>

#include <cstring>

namespace ll::cluster {

clu_hostcmp_fn startup_compare() noexcept { return samehost; }

const char *local_host() noexcept {
  const char *h = getlocalhost();
  return h ? h : "localhost";
}

bool resolve_name(const char *name, Resolved *out) noexcept {
  return name && *name && host_names(qzmo_gethostbyname(name), out);
}

bool resolve_addr4(const char *dotted, std::string *name) noexcept {
  unsigned char addr[4];
  int part = 0, value = -1;
  for (const char *p = dotted;; ++p) {
    if (*p >= '0' && *p <= '9') {
      value = (value < 0 ? 0 : value * 10) + (*p - '0');
      if (value > 255) return false;
    } else if ((*p == '.' || !*p) && value >= 0 && part < 4) {
      addr[part++] = static_cast<unsigned char>(value);
      value = -1;
      if (!*p) break;
    } else {
      return false;
    }
  }
  if (part != 4) return false;
  Resolved r;
  if (!host_names(qzmo_gethostbyaddr(reinterpret_cast<const char *>(addr), 4, 2 /* AF_INET */), &r)) return false;
  *name = r.official;
  return true;
}

namespace {
// a and b name the same directory: trailing separators aside, and with the
// platform's rule for letter case.
bool same_dir(const char *a, const char *b) {
  if (!a || !b) return false;
  auto len = [](const char *s) {
    size_t n = std::strlen(s);
    while (n > 1 && (s[n - 1] == '/' || s[n - 1] == '\\')) --n;
    return n;
  };
  const size_t n = len(a);
  if (n != len(b)) return false;
  for (size_t i = 0; i < n; ++i) {
    char x = a[i], y = b[i];
    if (kFoldNames) {
      if (x >= 'A' && x <= 'Z') x = static_cast<char>(x + 32);
      if (y >= 'A' && y <= 'Z') y = static_cast<char>(y + 32);
    }
    if (x != y) return false;
  }
  return true;
}
}  // namespace

FsCheck fstab_check(const char *path) noexcept {
  int out = 0;
  const qz_fstab_t *head = getfstab(&out);
  if (!head) return FsCheck::table_failed;
  for (const qz_fstab_t *n = head; n; n = n->next)
    if (same_dir(path, n->name) || (n->ent && same_dir(path, n->ent->fs_dir))) return FsCheck::mount_dir;
  for (const qz_fstab_t *n = head; n; n = n->next)
    if (n->ent && n->ent->fs_device && same_dir(path, n->ent->fs_device)) return FsCheck::raw_device;
  return FsCheck::neither;
}

}  // namespace ll::cluster

// The process-wide path list: which host owns a path, and which paths a host
// owns.
#include "cluster/native.h"
#include "cluster/state.h"

#include <liblocal/fileio.h>
#include <liblocal/memory.h>
#include <liblocal/output.h>

#include <cstdlib>
#include <cstring>

namespace ll::cluster {
namespace {

char *dup(const char *s) { return s ? xstrdup(s) : nullptr; }

void free_node(PathNode *n) {
  std::free(n->path);
  std::free(n->host);
  std::free(n);
}

// The entry whose path is the longest leading sequence of components of
// path; the first found wins a tie.
const PathNode *longest_owner(const PathNode *head, const char *path) {
  const PathNode *best = nullptr;
  int best_len = 0;
  for (const PathNode *n = head; n; n = n->next) {
    const int len = preflen(path, n->path);
    if (len > best_len) {
      best_len = len;
      best = n;
    }
  }
  return best;
}

// The owner by the longest owned path of the map that contains path.
const char *hx_owner(const char *path) {
  const char *owner = nullptr;
  int best_len = 0;
  for (const VirtHost &h : hx_map().hosts)
    for (const std::string &p : h.paths) {
      const int len = preflen(path, p.c_str());
      if (len > best_len) {
        best_len = len;
        owner = h.name.c_str();
      }
    }
  return owner;
}

}  // namespace

bool names_equal(const char *a, const char *b) noexcept {
  for (;; ++a, ++b) {
    unsigned char x = static_cast<unsigned char>(*a), y = static_cast<unsigned char>(*b);
    if (x >= 'A' && x <= 'Z') x = static_cast<unsigned char>(x + 32);
    if (y >= 'A' && y <= 'Z') y = static_cast<unsigned char>(y + 32);
    if (x != y) return false;
    if (!x) return true;
  }
}

bool host_match(const char *a, const char *b, clu_hostcmp_fn cmp) noexcept {
  if (!a || !b) return false;
  if (names_equal(a, b)) return true;
  if (!cmp) cmp = default_compare();
  if (cmp && cmp(a, b)) return true;
  Resolved ra, rb;
  if (!resolve_name(a, &ra) || !resolve_name(b, &rb)) return false;
  const char *oa = ra.official.c_str(), *ob = rb.official.c_str();
  if (names_equal(oa, ob) || names_equal(oa, b) || names_equal(a, ob)) return true;
  for (const std::string &alias : rb.aliases)
    if (names_equal(oa, alias.c_str())) return true;
  return false;
}

}  // namespace ll::cluster

using namespace ll::cluster;

LL_API void clu_pathl_addpath(const char *path) noexcept {
  if (!path) {
    dprintf(2, "clu_pathl_addpath: pathname is NULL\n");
    return;
  }
  State *s = state();
  auto *n = static_cast<PathNode *>(xmalloc(sizeof(PathNode)));
  n->path = xstrdup(path);
  n->host = nullptr;
  n->next = s->paths;
  s->paths = n;
}

LL_API void clu_pathl_free(void) noexcept {
  State *s = state();
  PathNode *n = s->paths;
  s->paths = nullptr;
  while (n) {
    PathNode *next = n->next;
    free_node(n);
    n = next;
  }
}

LL_API int clu_is_pathl_created(void) noexcept { return state()->paths ? 1 : 0; }

LL_API void clu_pathl_finalize(void) noexcept {
  ensure_init();
  const char *local = type_now() == CLU_TYPE_HX ? hx_map().nodename.c_str() : local_host();
  if (!local || !*local) {
    dprintf(1, "clu_pathl_finalize: getlocalhost() is NULL\n");
    return;
  }
  State *s = state();
  PathNode *rev = nullptr;
  for (PathNode *n = s->paths; n;) {
    PathNode *next = n->next;
    if (!n->host) n->host = xstrdup(local);
    n->next = rev;
    rev = n;
    n = next;
  }
  s->paths = rev;
}

LL_API void clu_pathl_normalize(void) noexcept {
  State *s = state();
  // Same path twice: the entry with an owner stays, else the first.
  for (PathNode *a = s->paths; a; a = a->next) {
    for (PathNode **link = &a->next; *link;) {
      PathNode *b = *link;
      const bool same = kFoldNames ? names_equal(a->path, b->path) : std::strcmp(a->path, b->path) == 0;
      if (!same) {
        link = &b->next;
        continue;
      }
      if (!a->host && b->host) {
        a->host = b->host;
        b->host = nullptr;
      }
      *link = b->next;
      free_node(b);
    }
  }
  // An unowned entry below a path that a host owns belongs to that host
  // already: it adds nothing.
  for (PathNode **link = &s->paths; *link;) {
    PathNode *n = *link;
    bool covered = false;
    if (!n->host)
      for (const PathNode *o = s->paths; o && !covered; o = o->next)
        covered = o != n && o->host && std::strlen(o->path) < std::strlen(n->path) && preflen(n->path, o->path) > 0;
    if (covered) {
      *link = n->next;
      free_node(n);
    } else {
      link = &n->next;
    }
  }
}

LL_API int clu_pathl_addvirthosts(void) noexcept {
  ensure_init();
  if (type_now() != CLU_TYPE_NATIVE) return 0;
  int added = 0;
  State *s = state();
  for (const native::Group &g : native::groups()) {
    if (!g.online_here || g.network_name.empty()) continue;
    for (const std::string &disk : g.disks) {
      auto *n = static_cast<PathNode *>(xmalloc(sizeof(PathNode)));
      n->path = xstrdup(disk.c_str());
      n->host = xstrdup(g.network_name.c_str());
      n->next = s->paths;
      s->paths = n;
      ++added;
    }
  }
  dprintf(7, "clu_pathl_addvirthosts: %d disk(s) of virtual hosts added\n", added);
  return added;
}

LL_API char *clu_pathl_gethost(const char *path) noexcept {
  if (!path) {
    dprintf(2, "clu_pathl_gethost: path is NULL\n");
    return dup(local_host());
  }
  ensure_init();
  const int type = type_now();
  if (type != CLU_TYPE_HX && type != CLU_TYPE_NATIVE) return dup(local_host());

  char full[4096];
  const char *p = fullpath(path, full, sizeof full) ? full : path;
  if (type == CLU_TYPE_HX) {
    const char *owner = hx_owner(p);
    return dup(owner ? owner : local_host());
  }
  State *s = state();
  if (const PathNode *n = longest_owner(s->paths, p); n && n->host) return dup(n->host);
  if (s->paths) {
    if (p[0] && p[1] == ':') {
      char root[4] = {p[0], ':', '\\', 0};
      const char *key = p[2] == '\\' ? p : root;
      if (const PathNode *n = longest_owner(s->paths, key); n && n->host) return dup(n->host);
    }
  } else {
    std::string owner;
    if (native::disk_owner(p, &owner)) return dup(owner.c_str());
  }
  return dup(local_host());
}

LL_API int clu_pathl_getmounts(const char *host, char ***out, clu_hostcmp_fn cmp) noexcept {
  if (!out) return 0;
  *out = nullptr;
  if (!host) {
    dprintf(1, "clu_pathl_getmounts: host is NULL\n");
    return 0;
  }
  if (!cmp) cmp = default_compare();
  auto owns = [&](const PathNode *n) {
    return n->host && (names_equal(n->host, host) || (cmp && cmp(n->host, host)));
  };
  State *s = state();
  int count = 0;
  for (const PathNode *n = s->paths; n; n = n->next) count += owns(n);
  if (!count) return 0;
  auto **v = static_cast<char **>(xmalloc((static_cast<size_t>(count) + 1) * sizeof(char *)));
  int i = 0;
  for (const PathNode *n = s->paths; n; n = n->next)
    if (owns(n)) v[i++] = xstrdup(n->path);
  v[i] = nullptr;
  *out = v;
  return count;
}

LL_API int clu_pathl_hostpath_match(const char *host, const char *path, clu_hostcmp_fn cmp) noexcept {
  if (!host || !path) {
    dprintf(1, "clu_pathl_hostmatch: parameter problems\n");
    return 0;
  }
  char *owner = clu_pathl_gethost(path);
  const bool m = host_match(host, owner, cmp);
  std::free(owner);
  return m ? 1 : 0;
}

// Host identity: the process-wide alias cache, the list of names that did not
// resolve, this machine's own names and addresses.
//
// An alias set is shared between the cache and its readers (a reference
// counted, never modified list), so a cached answer costs a lookup under the
// name-service lock and no copy. Resolutions run outside the lock; two
// threads may resolve the same name at once and the later one's names win.
#include <liblocal/hostid.h>

#include <cerrno>
#include <cstring>
#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "frame/areas.h"
#include "frame/teardown_hooks.h"
#include "net/hostid_os.h"
#include <liblocal/cluster.h>
#include <liblocal/memory.h>
#include <liblocal/qztime.h>
#include <liblocal/socket.h>

namespace ll::net {

SeamByName g_seam_byname = nullptr;
SeamByAddr g_seam_byaddr = nullptr;

std::recursive_mutex &ns_lock() noexcept { return *ll::proc()->cs[0]; }

namespace {

constexpr int64_t kEntryLife = 1800;     // seconds an alias set is kept
constexpr int64_t kClusterLocalLife = 30;  // this machine's names on a cluster node
constexpr int64_t kNegativeLife = 300;   // the list of names that did not resolve
constexpr size_t kMaxName = 255;         // longer names are not host names
constexpr int kMaxAddrs = 2048;
constexpr size_t kAddrBuf = 32768;

using Names = std::vector<std::string>;
using NamesPtr = std::shared_ptr<const Names>;

int64_t (*g_clock)() = nullptr;

int64_t now() noexcept {
  if (g_clock) return g_clock();
  qz_time64_t t = qz_time(nullptr);
  return (static_cast<int64_t>(t.high) << 32) | t.low;
}

unsigned char lower(unsigned char c) noexcept { return c >= 'A' && c <= 'Z' ? static_cast<unsigned char>(c + 32) : c; }

// Host names compare without regard to (ASCII) case.
bool same(const std::string &a, const char *b) noexcept {
  size_t n = a.size();
  for (size_t i = 0; i < n; ++i)
    if (!b[i] || lower(static_cast<unsigned char>(a[i])) != lower(static_cast<unsigned char>(b[i]))) return false;
  return b[n] == 0;
}

uint16_t family_of(const unsigned char *rec) noexcept {
  uint16_t f;
  std::memcpy(&f, rec, 2);
  return f;
}

bool holds(const Names &list, const char *name) noexcept {
  for (const std::string &n : list)
    if (same(n, name)) return true;
  return false;
}

void add_new(Names &list, const std::string &name) {
  if (!name.empty() && !holds(list, name.c_str())) list.push_back(name);
}

struct Entry {
  NamesPtr names;
  int64_t expires;
};

struct Cache {
  std::vector<std::unique_ptr<Entry>> entries;  // newest first
  Entry *local = nullptr;
  Names negative;
  int64_t negative_expires = 0;
  char localhost[64] = {};
  bool localhost_done = false;
  // Own addresses: built once, kept for the life of the process.
  std::once_flag addrs_once;
  int addr_count = 0;
  unsigned char *addrs = nullptr;
  // The last address found local, with bit 32 set once there is one.
  std::atomic<uint64_t> remembered{0};
};

Cache &cache() {
  static Cache *c = new Cache();  // lives as long as the process: freed by clear()
  return *c;
}

// The names of an answer, then those of every address it gives.
void add_answer(Names &list, const Answer &a) {
  add_new(list, a.name);
  for (const std::string &al : a.aliases) add_new(list, al);
}

bool is_cluster_node() noexcept { return ll::hooks::cluster_node(); }

// Rebuilds this machine's entry when it is missing or expired; false when it
// cannot be built. Called without the lock held.
bool local_fresh(int64_t t) {
  Cache &c = cache();
  {
    std::lock_guard<std::recursive_mutex> lock(ns_lock());
    if (c.local && t < c.local->expires) return true;
  }
  Answer a;
  if (!resolve_name(getlocalhost(), a)) return false;
  auto list = std::make_shared<Names>();
  add_answer(*list, a);
  if (!a.addrs.empty()) {
    Answer r;
    if (resolve_addr(a.addrs[0], a.type, r)) add_answer(*list, r);
  }
  bool cluster = is_cluster_node();
  if (!cluster) {
    sockaddr *raw = nullptr;
    int n = get_myaddrs(&raw);
    const unsigned char *rec = reinterpret_cast<const unsigned char *>(raw);
    for (int i = 0; i < n; ++i, rec += 16) {
      if (family_of(rec) != 2) continue;
      Answer r;
      if (resolve_addr(std::string(reinterpret_cast<const char *>(rec + 4), 4), 2, r)) add_answer(*list, r);
    }
  }
  add_new(*list, "localhost");
  char host[65] = {};
  if (qzgethostname(host, 64) == 0) add_new(*list, host);
  int64_t life = cluster ? kClusterLocalLife : kEntryLife;
  std::lock_guard<std::recursive_mutex> lock(ns_lock());
  if (!c.local) {
    c.entries.insert(c.entries.begin(), std::make_unique<Entry>());
    c.local = c.entries.front().get();
  }
  c.local->names = std::move(list);
  c.local->expires = t + life;
  return true;
}

// The alias set of a name (null: this machine), or null.
NamesPtr alias_set(const char *name) {
  if (name && (!*name || std::strlen(name) > kMaxName)) return nullptr;
  int64_t t = now();
  if (!local_fresh(t)) return nullptr;
  Cache &c = cache();
  Entry *stale = nullptr;
  {
    std::lock_guard<std::recursive_mutex> lock(ns_lock());
    if (!name) return c.local->names;
    for (auto &e : c.entries) {
      if (!holds(*e->names, name)) continue;
      if (t < e->expires) return e->names;
      if (e.get() == c.local) return nullptr;
      stale = e.get();
      break;
    }
    if (!stale && t < c.negative_expires && holds(c.negative, name)) return nullptr;
  }
  Answer a;
  auto list = std::make_shared<Names>();
  if (resolve_name(name, a)) {
    add_answer(*list, a);
    for (const std::string &addr : a.addrs) {
      Answer r;
      if (resolve_addr(addr, a.type, r)) add_answer(*list, r);
    }
    add_new(*list, name);
  }
  std::lock_guard<std::recursive_mutex> lock(ns_lock());
  if (list->empty()) {
    if (t >= c.negative_expires) {
      c.negative.clear();
      c.negative_expires = t + kNegativeLife;
    }
    add_new(c.negative, name);
    return nullptr;
  }
  Entry *target = nullptr;
  // The stale entry may have gone (cleared) while we resolved.
  for (auto &e : c.entries)
    if (e.get() == stale) target = stale;
  if (!target) {
    for (auto &e : c.entries) {
      bool shares = false;
      for (const std::string &n : *list)
        if (holds(*e->names, n.c_str())) {
          shares = true;
          break;
        }
      if (!shares) continue;
      auto merged = std::make_shared<Names>(*e->names);
      for (const std::string &n : *list) add_new(*merged, n);
      list = std::move(merged);
      target = e.get();
      break;
    }
  }
  if (!target) {
    c.entries.insert(c.entries.begin(), std::make_unique<Entry>());
    target = c.entries.front().get();
  }
  target->names = list;
  target->expires = t + (target == c.local && is_cluster_node() ? kClusterLocalLife : kEntryLife);
  return list;
}

void build_addrs(Cache &c) {
  std::vector<uint32_t> found;
  int n = os::own_addrs(found);
  if (n < 0) {
    c.addr_count = -1;
    return;
  }
  auto *buf = static_cast<unsigned char *>(std::calloc(1, kAddrBuf));
  if (!buf) {
    c.addr_count = -1;
    return;
  }
  int count = 0;
  for (uint32_t a : found) {
    if (count == kMaxAddrs) break;
    unsigned char *rec = buf + 16 * count++;
    uint16_t fam = 2;
    std::memcpy(rec, &fam, 2);
    std::memcpy(rec + 4, &a, 4);
  }
  c.addrs = buf;
  c.addr_count = count;
}

}  // namespace

// Without the lock: also called at teardown, when the lock is gone.
void hostid_clear() noexcept {
  Cache &c = cache();
  c.entries.clear();
  c.local = nullptr;
  c.negative.clear();
  c.negative_expires = 0;
}

}  // namespace ll::net

using namespace ll::net;

extern "C" {

LL_API int samehost(const char *a, const char *b) noexcept {
  if (!a && !b) return 1;
  if (a && b && same(std::string(a), b)) return 1;
  NamesPtr sa = alias_set(a);
  if (sa && b && holds(*sa, b)) return 1;
  NamesPtr sb = alias_set(b);
  if (!sa || !sb) return 0;
  for (const std::string &n : *sa)
    if (holds(*sb, n.c_str())) return 1;
  return 0;
}

LL_API int is_myname(const char *name) noexcept {
  if (!name) return 1;
  NamesPtr s = alias_set(name);
  if (!s) return 0;
  if (holds(*s, "localhost")) return 1;
  return clu_is_localvirthost(name) ? 1 : 0;
}

LL_API char *get_primaryhostname(const char *name) noexcept {
  NamesPtr s = alias_set(name);
  if (!s || s->empty()) return nullptr;
  return xstrdup((*s)[0].c_str());
}

LL_API int is_validhostname(const char *name) noexcept {
  if (!name) return 0;
  return alias_set(name) ? 1 : 0;
}

LL_API char *getlocalhost(void) noexcept {
  Cache &c = cache();
  std::lock_guard<std::recursive_mutex> lock(ns_lock());
  if (!c.localhost_done) {
    char host[65] = {};
    if (qzgethostname(host, 64) != 0 || !host[0]) {
      std::strcpy(c.localhost, "localhost");
    } else {
      Answer a;
      const std::string &pick = resolve_name(host, a) && !a.name.empty() ? a.name : std::string(host);
      std::strncpy(c.localhost, pick.c_str(), sizeof c.localhost - 1);
    }
    for (char *p = c.localhost; *p; ++p)
      if (*p >= 'A' && *p <= 'Z') *p = static_cast<char>(*p + 32);
    c.localhost_done = true;
  }
  return c.localhost;
}

LL_API int get_myaddrs(struct sockaddr **list) noexcept {
  Cache &c = cache();
  std::call_once(c.addrs_once, [&c] { build_addrs(c); });
  if (list) *list = reinterpret_cast<sockaddr *>(c.addrs);
  return c.addr_count;
}

LL_API int is_myaddr(int family, const void *addr, int length) noexcept {
  if (!addr || length <= 0) return 0;
  Cache &c = cache();
  uint32_t a4 = 0;
  if (family == 2) {
    if (length < 4) return 0;
    std::memcpy(&a4, addr, 4);
    if (c.remembered.load(std::memory_order_relaxed) == ((uint64_t{1} << 32) | a4)) return 1;
  }
  sockaddr *raw = nullptr;
  int n = get_myaddrs(&raw);
  const unsigned char *rec = reinterpret_cast<const unsigned char *>(raw);
  for (int i = 0; i < n; ++i, rec += 16) {
    if (family_of(rec) != family) continue;
    if (family == 2) {
      if (std::memcmp(rec + 4, &a4, 4) == 0) {
        c.remembered.store((uint64_t{1} << 32) | a4, std::memory_order_relaxed);
        return 1;
      }
    } else if (length <= 14 && std::memcmp(rec + 2, addr, static_cast<size_t>(length)) == 0) {
      return 1;
    }
  }
  return 0;
}

LL_API void _qzmo_get_myaddress(struct sockaddr *out) noexcept {
  if (!out) return;
  char host[65] = {};
  if (qzgethostname(host, 64) != 0) return;
  Answer a;
  if (!resolve_name(host, a) || a.addrs.empty() || a.length <= 0 || a.length > 12) return;
  unsigned char *o = reinterpret_cast<unsigned char *>(out);
  uint16_t fam = static_cast<uint16_t>(a.type);
  std::memcpy(o, &fam, 2);
  std::memcpy(o + 4, a.addrs[0].data(), static_cast<size_t>(a.length));
}

LL_API void __qzmo_get_myaddress(struct sockaddr *out) noexcept { _qzmo_get_myaddress(out); }

// Test seams.
LL_API void llt_hostid_clock(int64_t (*clock)(void)) noexcept { g_clock = clock; }
LL_API void llt_hostid_resolver(void *(*byname)(const char *), void *(*byaddr)(const char *, int, int)) noexcept {
  std::lock_guard<std::recursive_mutex> lock(ns_lock());
  g_seam_byname = byname;
  g_seam_byaddr = byaddr;
  hostid_clear();
  cache().localhost_done = false;
}

}  // extern "C"

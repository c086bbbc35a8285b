// The file-system table: built once per process by the back-end, handed out
// as one block of C records, and the questions asked about its entries.
#include <liblocal/catalog.h>
#include <liblocal/frame.h>
#include <liblocal/fstab.h>
#include <liblocal/memory.h>
#include <liblocal/output.h>
#include <liblocal/syserr.h>
#include <liblocal/wfile.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>

#include "frame/areas.h"
#include "paths/fstab_os.h"
#include "paths/paths.h"

namespace ll::fstab {

namespace {

// The table's own lock: building it asks the system about every volume, and
// no other family may wait on that.
std::mutex g_lock;
std::atomic<bool> g_built{false};
qz_fstab_t *g_head = nullptr;
void *g_block = nullptr;  // nodes, entries and texts in one allocation
std::atomic<int> g_builds{0}, g_fail{0};  // test seams

void release() noexcept {
  std::free(g_block);
  g_block = nullptr;
  g_head = nullptr;
}

// Frees the table when the library leaves the process (teardown is single
// threaded; the lock is not taken).
struct Keeper {
  ~Keeper() {
    g_built.store(false);
    release();
  }
};

char *put(char *&at, std::string_view s) {
  char *p = at;
  std::memcpy(p, s.data(), s.size());
  p[s.size()] = 0;
  at += s.size() + 1;
  return p;
}

constexpr std::string_view kIgnore = "ignore";

// The options as handed out: "ignore" in front of an entry not to be saved
// on its own.
size_t options_size(const Mount &m) {
  if (!m.ignored || has_word(m.options, kIgnore)) return m.options.size();
  return m.options.empty() ? kIgnore.size() : kIgnore.size() + 1 + m.options.size();
}
char *put_options(char *&at, const Mount &m) {
  if (!m.ignored || has_word(m.options, kIgnore)) return put(at, m.options);
  char *p = at;
  std::memcpy(at, kIgnore.data(), kIgnore.size());
  at += kIgnore.size();
  if (!m.options.empty()) {
    *at++ = ',';
    std::memcpy(at, m.options.data(), m.options.size());
    at += m.options.size();
  }
  *at++ = 0;
  return p;
}

// One block: the nodes, then the entries, then the texts. The last row added
// is the head of the list; a node whose name is its directory shares the text.
void publish(const Table &t) {
  const size_t n = t.rows.size();
  if (n == 0) return;
  size_t texts = 0;
  for (const Mount &m : t.rows)
    texts += m.device.size() + m.dir.size() + m.type.size() + options_size(m) + 4 +
             (m.name.empty() ? 0 : m.name.size() + 1);
  auto *block = static_cast<char *>(xmalloc(n * (sizeof(qz_fstab_t) + sizeof(qz_fsent_t)) + texts));
  auto *nodes = reinterpret_cast<qz_fstab_t *>(block);
  auto *ents = reinterpret_cast<qz_fsent_t *>(block + n * sizeof(qz_fstab_t));
  char *at = block + n * (sizeof(qz_fstab_t) + sizeof(qz_fsent_t));
  for (size_t i = 0; i < n; ++i) {
    const Mount &m = t.rows[i];
    qz_fsent_t &e = ents[i];
    e.fs_device = put(at, m.device);
    e.fs_dir = put(at, m.dir);
    e.fs_type = put(at, m.type);
    e.fs_opts = put_options(at, m);
    e.fs_serial = m.serial;
    e.fs_spare = 0;
    nodes[i].ent = &e;
    nodes[i].name = m.name.empty() ? e.fs_dir : put(at, m.name);
    nodes[i].next = i ? &nodes[i - 1] : nullptr;
  }
  g_block = block;
  g_head = &nodes[n - 1];
}

void push_pseudo(Table &t, const char *name) {
  Mount m;
  m.device = m.dir = m.type = t.keep(std::string(name) + "\\");
  m.name = name;
  t.push(m);
}

// Types that are never local save sets: network, removable, optical, memory
// and pseudo file systems (the repetitions are harmless).
constexpr const char *kNonLocal[] = {
    "hsfs",  "proc",   "fd",       "cachefs", "lofs",   "nfs2",  "nfs3",  "nfs3pref", "nfs",  "brfs",
    "msdos", "dfs",    "iso9660",  "swap",    "swapfs", "tmp",   "tmpfs", "nucfs",    "nucam", "fdfs",
    "xx",    "nfs",    "remote",   "removable", "dfs",  "pc",    "ramdisk", "ignore",  "lo",   "cdrom"};
constexpr const char *kNotSaved[] = {"ignore", "nobackups", "ro"};

}  // namespace

void add_system_state(Table &t, int major) {
  if (t.rows.empty()) return;
  const char *me = getMyname();
  if (!me || !*me || ll::paths::equal_nocase(me, "Backup")) return;
  push_pseudo(t, "SYSTEM STATE:");
  if (major >= 5) {
    push_pseudo(t, "SYSTEM DB:");
    push_pseudo(t, "SYSTEM FILES:");
  }
}

void add_repair_disk(Table &t) { push_pseudo(t, "REPAIRDISK:"); }

int injected_failure() noexcept { return g_fail.load(); }

}  // namespace ll::fstab

using namespace ll::fstab;

extern "C" {

LL_API qz_fstab_t *getfstab(int *out) noexcept {
  if (out) *out = 0;
  if (g_built.load(std::memory_order_acquire)) return g_head;
  std::lock_guard<std::mutex> g(g_lock);
  if (!g_built.load(std::memory_order_relaxed)) {
    Table t;
    g_builds.fetch_add(1);
    if (!build(t)) {
      return nullptr;  // not kept: the next call asks the system again
    }
    publish(t);
    ll::process_area<Keeper>();
    g_built.store(true, std::memory_order_release);
  }
  return g_head;
}

LL_API void donefstab(void) noexcept {
  std::lock_guard<std::mutex> g(g_lock);
  g_built.store(false, std::memory_order_release);
  release();
}

LL_API int is_local_saveset(const qz_fstab_t *node) noexcept {
  if (!node || !node->ent) return 0;
  const char *opts = node->ent->fs_opts ? node->ent->fs_opts : "";
  for (const char *w : kNotSaved)
    if (has_word(opts, w)) return 0;
  const char *type = node->ent->fs_type ? node->ent->fs_type : "";
  for (const char *w : kNonLocal)
    if (ll::paths::equal_nocase(type, w)) return 0;
  return platform_nonlocal_type(type) ? 0 : 1;
}

LL_API int isfilesystemtype(const char *path, const char *type) noexcept {
  if (!type || !*type) return 0;
  if (!path || !*path) {
    errno = EINVAL;
    return 0;
  }
  const std::string ask = volume_of(path);
  char fs[101] = {};
  if (!utf8_getvolumeinfo(ask.c_str(), nullptr, 0, nullptr, nullptr, nullptr, fs, sizeof fs)) {
    const int e = errno;
    char fmt[512];
    printerr(qzcatgets_buf(fmt, sizeof fmt, Catd, 17, 187,
                           "%s: unable to get volume information about file system, %s.\n"),
             path, qzmo_strerror(e));
    errno = e;
    return 0;
  }
  return std::strcmp(fs, type) == 0 ? 1 : 0;
}

// Test seams: how often the table was built; a failure of the system's list
// of drives (mount table) with errno e until called again with 0.
LL_API int llt_fstab_builds(void) noexcept { return g_builds.load(); }
LL_API void llt_fstab_fail(int e) noexcept { g_fail.store(e); }

}  // extern "C"

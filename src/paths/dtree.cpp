// Directory-tree walker: depth first, each directory listed whole and its
// entries visited in name order, directories opened relative to their parent.
#include <liblocal/dtree.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "frame/areas.h"
#include "frame/init_steps.h"
#include "paths/dtree_os.h"

namespace {

using namespace ll::dtree;

struct Handlers {
  std::atomic<qz_dtree_handler> h[QZ_DTK_COUNT] = {};
};
Handlers &handlers() noexcept { return *ll::process_area<Handlers>(); }

bool takes_handler(int kind) noexcept { return kind >= QZ_DTK_LINK && kind < QZ_DTK_COUNT; }

// The built-in answers: follow what the walk's flags ask to follow, report the rest.
int builtin(const qz_dtree_entry *e, int flags) noexcept {
  switch (e->kind) {
    case QZ_DTK_LINK:
    case QZ_DTK_JUNCTION: return (flags & QZ_DTW_FOLLOW) ? QZ_DTH_FOLLOW : QZ_DTH_REPORT;
    case QZ_DTK_MOUNT: return (flags & QZ_DTW_XDEV) ? QZ_DTH_FOLLOW : QZ_DTH_REPORT;
    default: return QZ_DTH_REPORT;
  }
}

int ask_handler(const qz_dtree_entry *e, int flags) noexcept {
  qz_dtree_handler h = handlers().h[e->kind].load(std::memory_order_acquire);
  int r = h ? h(e, flags) : builtin(e, flags);
  // A loop is never entered, whatever a handler says.
  if (e->kind == QZ_DTK_LOOP && r == QZ_DTH_FOLLOW) r = QZ_DTH_REPORT;
  return r;
}

struct Level {
  uint64_t dev, ino;
};

struct Walk {
  int flags;
  qz_dtree_fn fn;
  void *arg;
  uint64_t root_dev;
  char sep;
  std::string path;           // the current entry's whole name
  std::vector<Level> stack;   // identities of the directories being walked

  int call(int visit, int kind, int depth, size_t name_at, const struct ll_stat64 *st, int err) {
    qz_dtree_entry e{path.c_str(), path.c_str() + name_at, depth, visit, kind, err, st};
    return fn(&e, arg);
  }

  // True when dev is another file system than the directory being listed
  // (so once a mount point is crossed, what lies below it is walked as
  // usual). An unknown device (0) is never another one.
  bool other_fs(uint64_t dev) const {
    const uint64_t here = stack.empty() ? root_dev : stack.back().dev;
    return dev != 0 && here != 0 && dev != here;
  }

  bool on_stack(uint64_t dev, uint64_t ino) const {
    if (dev == 0 && ino == 0) return false;
    for (const Level &l : stack)
      if (l.dev == dev && l.ino == ino) return true;
    return false;
  }

  // Walks the open directory 'dir' whose whole name is 'path'; takes ownership of dir.
  int descend(OsDir *dir, int depth) {
    std::vector<Item> items;
    int err = 0;
    bool ok = list(dir, items, err);
    if (!ok) {
      close(dir);
      size_t at = path.rfind(sep);
      int r = call(QZ_DTV_ERROR, QZ_DTK_DIR, depth - 1, at == std::string::npos ? 0 : at + 1, nullptr, err);
      return r == QZ_DTW_PRUNE ? 0 : r;
    }
    if (!(flags & QZ_DTW_DIRORDER))
      std::sort(items.begin(), items.end(), [](const Item &a, const Item &b) { return a.name < b.name; });
    const size_t base = path.size();
    if (base == 0 || path[base - 1] != sep) path += sep;
    const size_t name_at = path.size();
    int result = 0;
    for (Item &it : items) {
      path.resize(name_at);
      path += it.name;
      result = entry(dir, it, depth, name_at);
      if (result != 0) break;
    }
    path.resize(base);
    close(dir);
    return result;
  }

  int entry(OsDir *dir, Item &it, int depth, size_t name_at) {
    int err = inspect(dir, it, path, false);
    if (err != 0) {
      // Gone since the listing, or cannot be inspected: reported, the walk goes on.
      int r = call(QZ_DTV_ERROR, QZ_DTK_FILE, depth, name_at, nullptr, err);
      return r == QZ_DTW_PRUNE ? 0 : r;
    }
    int kind = kind_of(it.st, it.reparse);
    bool follow = false;
    if (kind == QZ_DTK_DIR && other_fs(it.st.st_dev)) kind = QZ_DTK_MOUNT;
    if (kind != QZ_DTK_FILE && kind != QZ_DTK_DIR) {
      qz_dtree_entry e{path.c_str(), path.c_str() + name_at, depth, QZ_DTV_ENTRY, kind, 0, &it.st};
      int h = ask_handler(&e, flags);
      if (h == QZ_DTH_SKIP) return 0;
      follow = h == QZ_DTH_FOLLOW;
    }
    if (!follow && kind != QZ_DTK_DIR) {
      int r = call(QZ_DTV_ENTRY, kind, depth, name_at, &it.st, 0);
      return r == QZ_DTW_PRUNE ? 0 : r;
    }
    // A directory to walk into: a plain one, or what a followed link or
    // crossed mount point leads to.
    struct ll_stat64 st = it.st;
    if (kind == QZ_DTK_LINK || kind == QZ_DTK_JUNCTION) {
      Item target = it;
      target.have_st = false;
      if (inspect(dir, target, path, true) != 0 || kind_of(target.st, 0) != QZ_DTK_DIR) {
        int r = call(QZ_DTV_ENTRY, kind, depth, name_at, &it.st, 0);
        return r == QZ_DTW_PRUNE ? 0 : r;
      }
      st = target.st;
      if (other_fs(st.st_dev)) {
        // The link leads onto another file system: crossed only as a mount point would be.
        qz_dtree_entry e{path.c_str(), path.c_str() + name_at, depth, QZ_DTV_ENTRY, QZ_DTK_MOUNT, 0, &st};
        if (ask_handler(&e, flags) != QZ_DTH_FOLLOW) {
          int r = call(QZ_DTV_ENTRY, kind, depth, name_at, &it.st, 0);
          return r == QZ_DTW_PRUNE ? 0 : r;
        }
      }
    }
    int derr = 0;
    // Only what the handler chose to follow is opened through a link; a
    // mount point is one only where the system marks it (a Windows volume
    // mount point), elsewhere it is a plain directory of another file system.
    const bool through = kind == QZ_DTK_LINK || kind == QZ_DTK_JUNCTION || (kind == QZ_DTK_MOUNT && it.reparse != 0);
    OsDir *child = open_child(dir, it, path, through, derr);
    if (!child) {
      int r = call(QZ_DTV_ERROR, QZ_DTK_DIR, depth, name_at, &st, derr);
      return r == QZ_DTW_PRUNE ? 0 : r;
    }
    uint64_t dev = 0, ino = 0;
    identity(child, st, dev, ino);
    if (on_stack(dev, ino)) {
      close(child);
      int r = call(QZ_DTV_ENTRY, QZ_DTK_LOOP, depth, name_at, &st, 0);
      return r == QZ_DTW_PRUNE ? 0 : r;
    }
    int r = call(QZ_DTV_PRE, QZ_DTK_DIR, depth, name_at, &st, 0);
    if (r == QZ_DTW_PRUNE) {
      close(child);
      return 0;
    }
    if (r != 0) {
      close(child);
      return r;
    }
    stack.push_back({dev, ino});
    r = descend(child, depth + 1);
    stack.pop_back();
    if (r != 0) return r;
    path.resize(name_at + it.name.size());
    r = call(QZ_DTV_POST, QZ_DTK_DIR, depth, name_at, &st, 0);
    return r == QZ_DTW_PRUNE ? 0 : r;
  }
};

// The root without trailing separators, except where they are the root itself.
std::string trim_root(const char *root, char sep) {
  std::string p(root);
  auto is_sep = [](char c) { return c == '/' || c == '\\'; };
  while (p.size() > 1 && is_sep(p.back())) {
    if (p.size() == 3 && p[1] == ':') break;  // "C:\"
    p.pop_back();
  }
  (void)sep;
  return p;
}

}  // namespace

namespace ll::init {
void dtree_handlers() noexcept { (void)add_dtree_handlers(); }
}  // namespace ll::init

extern "C" {

LL_API int qz_dtree_walk(const char *root, int flags, qz_dtree_fn fn, void *arg) noexcept {
  if (!root || !*root || !fn) {
    errno = EINVAL;
    return -1;
  }
  try {
    Walk w{flags, fn, arg, 0, separator(), trim_root(root, separator()), {}};
    struct ll_stat64 st;
    unsigned reparse = 0;
    int err = stat_root(w.path, st, reparse);
    if (err != 0) {
      errno = err;
      return -1;
    }
    w.root_dev = st.st_dev;
    size_t at = w.path.find_last_of("/\\");
    size_t name_at = (at == std::string::npos || at + 1 == w.path.size()) ? 0 : at + 1;
    int kind = kind_of(st, reparse);
    if (kind != QZ_DTK_DIR) {
      int r = w.call(QZ_DTV_ENTRY, kind, 0, name_at, &st, 0);
      return r == QZ_DTW_PRUNE ? 0 : r;
    }
    OsDir *dir = open_root(w.path, err);
    if (!dir) {
      errno = err;
      return -1;
    }
    int r = w.call(QZ_DTV_PRE, QZ_DTK_DIR, 0, name_at, &st, 0);
    if (r != 0) {
      close(dir);
      return r == QZ_DTW_PRUNE ? 0 : r;
    }
    uint64_t dev = 0, ino = 0;
    identity(dir, st, dev, ino);
    w.stack.push_back({dev, ino});
    const std::string root_path = w.path;
    r = w.descend(dir, 1);
    if (r != 0) return r;
    w.path = root_path;
    r = w.call(QZ_DTV_POST, QZ_DTK_DIR, 0, name_at, &st, 0);
    return r == QZ_DTW_PRUNE ? 0 : r;
  } catch (...) {
    errno = ENOMEM;
    return -1;
  }
}

LL_API qz_dtree_handler qz_dtree_sethandler(int kind, qz_dtree_handler handler) noexcept {
  if (!takes_handler(kind)) {
    errno = EINVAL;
    return nullptr;
  }
  qz_dtree_handler old = handlers().h[kind].exchange(handler, std::memory_order_acq_rel);
  return old ? old : builtin;
}

LL_API int add_dtree_handlers(void) noexcept {
  Handlers &hs = handlers();
  for (int k = QZ_DTK_LINK; k < QZ_DTK_COUNT; ++k) {
    qz_dtree_handler none = nullptr;
    hs.h[k].compare_exchange_strong(none, builtin);
  }
  return 0;
}

}  // extern "C"

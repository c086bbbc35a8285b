// The host description: built once per process from the system names, the
// operating-system class, the processor count and the local file systems,
// then handed out as one read-only record.
#include <liblocal/fileio.h>
#include <liblocal/frame.h>
#include <liblocal/fstab.h>
#include <liblocal/osver.h>
#include <liblocal/output.h>
#include <liblocal/sysinfo.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

namespace {

// The record lives as long as the library is loaded: no allocation, nothing
// to tear down, and a reader needs one acquire load once it is published.
qz_sysdesc_t g_record;
std::atomic<const qz_sysdesc_t *> g_ready{nullptr};
// Building asks the file-system table, which takes its own lock: this one
// is taken first and only here.
std::mutex g_build_lock;
std::atomic<int> g_builds{0};  // test seam

template <size_t N> void put(char (&field)[N], const char *s) {
  const size_t n = s ? strnlen(s, N - 1) : 0;
  if (n) std::memcpy(field, s, n);
  field[n] = 0;
}

// The local save sets of the file-system table, each volume once, summed
// through the free-space query. A volume whose size cannot be read (not
// ready, gone since the table was built) is left out.
void add_local_file_systems(qz_sysdesc_t &d) {
  std::vector<uint32_t> serials;
  std::vector<std::string> devices;  // volumes without a serial, by name
  for (const qz_fstab_t *p = getfstab(nullptr); p; p = p->next) {
    if (!is_local_saveset(p) || !p->ent->fs_dir) continue;
    const uint32_t serial = p->ent->fs_serial;
    const std::string device = p->ent->fs_device ? p->ent->fs_device : p->ent->fs_dir;
    if (serial != 0) {
      if (std::find(serials.begin(), serials.end(), serial) != serials.end()) continue;
    } else if (std::find(devices.begin(), devices.end(), device) != devices.end()) {
      continue;
    }
    uint64_t total = 0;
    if (qz_diskusage(p->ent->fs_dir, &total, nullptr, nullptr) != 0) {
      dprintf(3, "sysdesc: %s left out, its size cannot be read\n", p->ent->fs_dir);
      continue;
    }
    if (serial != 0) serials.push_back(serial);
    else devices.push_back(device);
    d.local_bytes += total;
    ++d.local_count;
  }
}

void build(qz_sysdesc_t &d) {
  std::memset(&d, 0, sizeof d);
  struct ll_utsname u;
  if (ll_uname(&u) == 0) {
    put(d.sysname, u.sysname);
    put(d.nodename, u.nodename);
    put(d.release, u.release);
    put(d.version, u.version);
    put(d.machine, u.machine);
  }
  d.os_class = Win32OSVersion();
  put(d.kind, d.os_class == 2 ? "server" : "desktop");
  put(d.os_name, qz_host_os_name());
  d.processors = get_num_processors();
  try {
    add_local_file_systems(d);
  } catch (...) {
    // Out of memory while collecting: the record keeps what was summed.
  }
}

}  // namespace

extern "C" {

LL_API const qz_sysdesc_t *sysdesc(void) noexcept {
  if (const qz_sysdesc_t *d = g_ready.load(std::memory_order_acquire)) return d;
  const int saved = errno;
  std::lock_guard<std::mutex> g(g_build_lock);
  if (!g_ready.load(std::memory_order_relaxed)) {
    build(g_record);
    g_builds.fetch_add(1, std::memory_order_relaxed);
    g_ready.store(&g_record, std::memory_order_release);
  }
  errno = saved;
  return &g_record;
}

// Test seams: how often the record was built; forget it so that the next
// call builds it again (only while no other thread reads it).
LL_API int llt_sysdesc_builds(void) noexcept { return g_builds.load(); }
LL_API void llt_sysdesc_forget(void) noexcept {
  std::lock_guard<std::mutex> g(g_build_lock);
  g_ready.store(nullptr, std::memory_order_release);
}

}  // extern "C"

// The file-system table on POSIX: the system's own mount table. Nothing here
// touches a mount point (no stat, no statfs): a hung network mount must not
// hang the caller.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <string>

#include <liblocal/export.h>

#include "frame/fault.h"
#include "paths/fstab_os.h"
#include "paths/paths.h"

namespace ll::fstab {

namespace {

// The mount table of a large host is a few megabytes; beyond this the rest
// of the text is not read.
constexpr size_t kMaxTable = 64u << 20;

// Test seam: mount-table text to read instead of the system's.
std::mutex g_fake_lock;
bool g_fake_on = false;
std::string g_fake;

int read_table(std::string &text) {
  if (const int e = injected_failure()) return e;
  {
    std::lock_guard<std::mutex> g(g_fake_lock);
    if (g_fake_on) {
      text = g_fake;
      return 0;
    }
  }
  const int fd = LL_FAULT(open) ? -1 : ::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno ? errno : ENOENT;
  size_t len = 0;
  text.resize(64 * 1024);
  while (len < kMaxTable) {
    if (len == text.size()) text.resize(text.size() * 2 < kMaxTable ? text.size() * 2 : kMaxTable);
    const ssize_t n = LL_FAULT(io) ? -1 : ::read(fd, text.data() + len, text.size() - len);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      const int e = errno;
      ::close(fd);
      return e;
    }
    if (n == 0) break;
    len += static_cast<size_t>(n);
  }
  ::close(fd);
  text.resize(len);
  // A text cut at the bound ends in a partial line: drop it.
  if (len == kMaxTable) text.resize(text.rfind('\n') == std::string::npos ? 0 : text.rfind('\n') + 1);
  return 0;
}

// Network, pseudo and memory file systems of Linux and the BSDs.
constexpr const char *kPlatformNonLocal[] = {
    // network and shared
    "nfs4", "cifs", "smb3", "smbfs", "ncpfs", "afs", "coda", "ceph", "glusterfs", "9p", "lustre", "virtiofs",
    "vboxsf", "davfs", "fuse",
    // kernel and pseudo
    "sysfs", "devtmpfs", "devpts", "devfs", "cgroup", "cgroup2", "securityfs", "debugfs", "tracefs", "pstore",
    "bpf", "configfs", "fusectl", "mqueue", "hugetlbfs", "binfmt_misc", "autofs", "rpc_pipefs", "nfsd",
    "efivarfs", "selinuxfs", "nsfs", "rootfs", "procfs", "fdescfs", "linprocfs", "linsysfs",
    // memory, layered and image
    "ramfs", "mfs", "overlay", "aufs", "unionfs", "squashfs", "udf", "cd9660"};

}  // namespace

bool build(Table &t) noexcept {
  std::string text;
  if (const int e = read_table(text)) {
    errno = e;
    return false;
  }
  table_from_mountinfo(t.keep(std::move(text)), t);
  return true;
}

bool platform_nonlocal_type(const char *type) noexcept {
  if (std::strncmp(type, "fuse.", 5) == 0) return true;  // every user-space file system but fuseblk
  for (const char *w : kPlatformNonLocal)
    if (ll::paths::equal_nocase(type, w)) return true;
  return false;
}

std::string volume_of(const char *path) { return path; }

}  // namespace ll::fstab

extern "C" {

// Test seam: the mount table is read from text (null: the system's again).
LL_API void llt_fstab_mountinfo(const char *text) noexcept {
  std::lock_guard<std::mutex> g(ll::fstab::g_fake_lock);
  ll::fstab::g_fake_on = text != nullptr;
  ll::fstab::g_fake = text ? text : "";
}

}  // extern "C"

// Shared-memory objects on POSIX: named shared memory "/<mapping name>",
// owner-only, never reached through a link, with the pages reserved before
// anyone touches them (a block the file system cannot back would otherwise
// end the process with a bus error on first use).
#include "proc/shmem_os.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>

#include <liblocal/security.h>
#include <liblocal/shmem.h>
#include "frame/fault.h"

namespace ll::shm_os {
namespace {

constexpr mode_t kOwnerOnly = S_IRUSR | S_IWUSR;

std::string object_name(const char *name) { return std::string("/") + name; }

int fd_of(void *handle) noexcept { return static_cast<int>(reinterpret_cast<intptr_t>(handle)); }
void *handle_of(int fd) noexcept { return reinterpret_cast<void *>(static_cast<intptr_t>(fd)); }

void close_keep_errno(int fd) noexcept {
  const int e = errno;
  ::close(fd);
  errno = e;
}

bool reserve(int fd, off_t size) noexcept {
  int r;
  while ((r = posix_fallocate(fd, 0, size)) == EINTR) {
  }
  if (r == 0) return true;
  errno = r;
  return false;
}

// An object found under our name may be adopted only when it is a plain
// object of ours that nobody else may write to and that has no other name.
bool adoptable(const struct stat &st) noexcept {
  return S_ISREG(st.st_mode) && st.st_uid == geteuid() && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0 &&
         st.st_nlink == 1;
}

std::atomic<uint32_t> g_pid{0};
void forget_pid() { g_pid.store(0, std::memory_order_relaxed); }

}  // namespace

uint32_t process() noexcept {
  uint32_t p = g_pid.load(std::memory_order_relaxed);
  if (p) return p;
  static std::once_flag once;
  std::call_once(once, [] { pthread_atfork(nullptr, nullptr, forget_pid); });
  p = static_cast<uint32_t>(getpid());
  g_pid.store(p, std::memory_order_relaxed);
  return p;
}

const char *name_prefix() noexcept { return "Global\\"; }

bool create(const char *name, uint32_t size, Mapping &m, bool &existed) noexcept {
  const std::string path = object_name(name);
  int fd = -1;
  // The name may vanish between the exclusive create and the open of an
  // existing object (its creator released it): try a few times.
  for (int attempt = 0; attempt < 8 && fd < 0; ++attempt) {
    fd = LL_FAULT(open) ? -1 : shm_open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kOwnerOnly);
    if (fd >= 0) {
      existed = false;
      break;
    }
    if (errno != EEXIST) return false;
    fd = LL_FAULT(open) ? -1 : shm_open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC, 0);
    if (fd >= 0) {
      existed = true;
      break;
    }
    if (errno != ENOENT) return false;
  }
  if (fd < 0) return false;

  bool ok = true;
  if (existed) {
    // Adopted: back to owner-only, at least as large as asked.
    struct stat st {};
    ok = fstat(fd, &st) == 0;
    if (ok && !adoptable(st)) {
      errno = EACCES;
      ok = false;
    }
    ok = ok && fchmod(fd, kOwnerOnly) == 0;
    if (ok && static_cast<uint64_t>(st.st_size) < size) ok = ftruncate(fd, static_cast<off_t>(size)) == 0;
  }
  // Reserving the pages also sets a fresh object's size (a fresh object's
  // mode is owner-only less what the umask takes away).
  ok = ok && !LL_FAULT(io) && reserve(fd, static_cast<off_t>(size));
  void *p = MAP_FAILED;
  if (ok) {
    p = LL_FAULT(io) ? MAP_FAILED : mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ok = p != MAP_FAILED;
  }
  if (!ok) {
    const int e = errno;
    if (!existed) shm_unlink(path.c_str());
    ::close(fd);
    errno = e;
    return false;
  }
  m.handle = handle_of(fd);
  m.base = p;
  return true;
}

bool open(const char *name, uint32_t size, Mapping &m) noexcept {
  const std::string path = object_name(name);
  const int fd = LL_FAULT(open) ? -1 : shm_open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC, 0);
  if (fd < 0) return false;
  struct stat st {};
  if (fstat(fd, &st) != 0) {
    close_keep_errno(fd);
    return false;
  }
  // Pages past the object's end cannot be touched: refuse a larger view.
  if (!S_ISREG(st.st_mode) || static_cast<uint64_t>(st.st_size) < size) {
    ::close(fd);
    errno = EINVAL;
    return false;
  }
  void *p = LL_FAULT(io) ? MAP_FAILED : mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (p == MAP_FAILED) {
    close_keep_errno(fd);
    return false;
  }
  m.handle = handle_of(fd);
  m.base = p;
  return true;
}

void close(const char *name, uint32_t size, Mapping &m, bool remove_name) noexcept {
  const int e = errno;
  if (m.base) munmap(m.base, size);
  if (remove_name) shm_unlink(object_name(name).c_str());
  ::close(fd_of(m.handle));
  m = Mapping{};
  errno = e;
}

// Section rights and generic rights alike: any write right grants read and
// write, a read right read only.
bool grant(void *handle, const char *, uint32_t mask, const void *sid) noexcept {
  constexpr uint32_t kWrite = SHMEM_ACCESS_WRITE | QZ_ACCESS_WRITE | QZ_ACCESS_ALL;
  constexpr uint32_t kRead = SHMEM_ACCESS_READ | QZ_ACCESS_READ;
  if (!(mask & (kWrite | kRead))) {
    errno = EINVAL;
    return false;
  }
  const uint32_t access = (mask & kWrite) ? QZ_ACCESS_READ | QZ_ACCESS_WRITE : QZ_ACCESS_READ;
  return qz_change_handle_dacl(static_cast<intptr_t>(fd_of(handle)), sid, access) == 0;
}

}  // namespace ll::shm_os

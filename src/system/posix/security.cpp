// Accounts and security on POSIX: identifiers are Unix-account SIDs
// (S-1-22-1-uid, S-1-22-2-gid, S-1-1-0 for everyone) and a descriptor is an
// owner, a group and the mode bits granted to owner, group and others.
#include "system/security.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <liblocal/security.h>

namespace ll::sec {
namespace {

enum class Kind { user, group, world, other };

constexpr unsigned char kUnixAuthority = 22;

// The Unix-account identifier of a user (1) or a group (2) id.
int unix_sid(unsigned rid, uint32_t id, void *sid, size_t size) {
  unsigned char b[16] = {1, 2, 0, 0, 0, 0, 0, kUnixAuthority};
  b[8] = static_cast<unsigned char>(rid);
  for (int i = 0; i < 4; ++i) b[12 + i] = static_cast<unsigned char>(id >> (8 * i));
  return copy_out(sid, size, b, sizeof b);
}

Kind classify(const void *sid, uint32_t &id) {
  const auto *b = static_cast<const unsigned char *>(sid);
  static const unsigned char world[12] = {1, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0};
  if (std::memcmp(b, world, sizeof world) == 0) return Kind::world;
  static const unsigned char unix_head[12] = {1, 2, 0, 0, 0, 0, 0, kUnixAuthority, 0, 0, 0, 0};
  if (std::memcmp(b, unix_head, 8) != 0 || b[9] || b[10] || b[11]) return Kind::other;
  id = static_cast<uint32_t>(b[12] | b[13] << 8 | b[14] << 16 | static_cast<uint32_t>(b[15]) << 24);
  return b[8] == 1 ? Kind::user : b[8] == 2 ? Kind::group : Kind::other;
}

// Generic rights as rwx bits (0..7); -1 when the mask holds none of them.
int rwx(uint32_t access) {
  if (!(access & (QZ_ACCESS_READ | QZ_ACCESS_WRITE | QZ_ACCESS_EXECUTE | QZ_ACCESS_ALL))) return -1;
  if (access & QZ_ACCESS_ALL) return 7;
  return (access & QZ_ACCESS_READ ? 4 : 0) | (access & QZ_ACCESS_WRITE ? 2 : 0) | (access & QZ_ACCESS_EXECUTE ? 1 : 0);
}

uint32_t generic(unsigned bits) {
  uint32_t a = (bits & 4 ? QZ_ACCESS_READ : 0) | (bits & 2 ? QZ_ACCESS_WRITE : 0) | (bits & 1 ? QZ_ACCESS_EXECUTE : 0);
  return bits == 7 ? a | QZ_ACCESS_ALL : a;
}

// The descriptor record. Byte layout (no alignment needed): "QZSD", version,
// flags, mode (16-bit), uid, gid.
constexpr unsigned kOwner = 1, kGroup = 2, kDacl = 4;
struct Sd {
  unsigned flags = 0;
  unsigned mode = 0;  // rwxrwxrwx
  uint32_t uid = 0, gid = 0;
};
constexpr size_t kSdSize = 16;

bool load(const void *p, Sd &sd) {
  const auto *b = static_cast<const unsigned char *>(p);
  if (std::memcmp(b, "QZSD", 4) != 0 || b[4] != 1 || (b[5] & ~7u)) return false;
  sd.flags = b[5];
  sd.mode = (b[6] | b[7] << 8) & 0777u;
  std::memcpy(&sd.uid, b + 8, 4);
  std::memcpy(&sd.gid, b + 12, 4);
  return true;
}

int store(void *p, size_t size, const Sd &sd) {
  unsigned char b[kSdSize] = {'Q', 'Z', 'S', 'D', 1};
  b[5] = static_cast<unsigned char>(sd.flags);
  b[6] = static_cast<unsigned char>(sd.mode);
  b[7] = static_cast<unsigned char>(sd.mode >> 8);
  std::memcpy(b + 8, &sd.uid, 4);
  std::memcpy(b + 12, &sd.gid, 4);
  return copy_out(p, size, b, sizeof b);
}

int fail(int e) {
  errno = e;
  return -1;
}

// Grants bits to the identifier in sd; 0 or an errno value. 'take_over'
// lets a user or group other than the present one replace it.
int grant(Sd &sd, Kind kind, uint32_t id, int bits, bool take_over) {
  switch (kind) {
    case Kind::user:
      if ((sd.flags & kOwner) && sd.uid != id) {
        if (!take_over) return EPERM;
        sd.mode &= ~0700u;
      }
      sd.flags |= kOwner;
      sd.uid = id;
      sd.mode |= static_cast<unsigned>(bits) << 6;
      return 0;
    case Kind::group:
      if ((sd.flags & kGroup) && sd.gid != id) {
        if (!take_over) return EPERM;
        sd.mode &= ~0070u;
      }
      sd.flags |= kGroup;
      sd.gid = id;
      sd.mode |= static_cast<unsigned>(bits) << 3;
      return 0;
    case Kind::world:
      sd.mode |= static_cast<unsigned>(bits);
      return 0;
    default:
      return EINVAL;
  }
}

// Grow-on-demand buffer for the name-service calls.
struct NssBuf {
  char local[1024];
  std::unique_ptr<char[]> heap;
  char *p = local;
  size_t size = sizeof local;
  bool grow() {
    if (size >= (1u << 20)) return false;
    size *= 4;
    heap.reset(new (std::nothrow) char[size]);
    p = heap.get();
    return p != nullptr;
  }
};

// 0 found, ENOENT not found, or the name service's error.
int find_user(const char *name, uint32_t &uid) {
  NssBuf buf;
  passwd pw, *res = nullptr;
  int rc;
  while ((rc = getpwnam_r(name, &pw, buf.p, buf.size, &res)) == ERANGE)
    if (!buf.grow()) return ENOMEM;
  if (rc) return rc;
  if (!res) return ENOENT;
  uid = static_cast<uint32_t>(pw.pw_uid);
  return 0;
}

int find_group(const char *name, uint32_t &gid) {
  NssBuf buf;
  group gr, *res = nullptr;
  int rc;
  while ((rc = getgrnam_r(name, &gr, buf.p, buf.size, &res)) == ERANGE)
    if (!buf.grow()) return ENOMEM;
  if (rc) return rc;
  if (!res) return ENOENT;
  gid = static_cast<uint32_t>(gr.gr_gid);
  return 0;
}

int name_of_uid(uid_t uid, char *out, size_t size) {
  NssBuf buf;
  passwd pw, *res = nullptr;
  int rc;
  while ((rc = getpwuid_r(uid, &pw, buf.p, buf.size, &res)) == ERANGE)
    if (!buf.grow()) return fail(ENOMEM);
  if (rc) return fail(rc);
  if (!res) return fail(ENOENT);
  return copy_text(out, size, pw.pw_name, std::strlen(pw.pw_name));
}

bool this_host(const char *name, size_t len) {
  if (len == 1 && name[0] == '.') return true;
  char host[256] = "";
  if (gethostname(host, sizeof host - 1) != 0) return false;
  char *dot = std::strchr(host, '.');
  size_t hl = dot ? static_cast<size_t>(dot - host) : std::strlen(host);
  return len == hl && strncasecmp(name, host, len) == 0;
}

int apply_fd(int fd, Kind kind, uint32_t id, int bits) {
  struct stat st;
  if (fstat(fd, &st) != 0) return -1;
  Sd sd;
  sd.flags = kOwner | kGroup | kDacl;
  sd.uid = static_cast<uint32_t>(st.st_uid);
  sd.gid = static_cast<uint32_t>(st.st_gid);
  sd.mode = st.st_mode & 0777u;
  if (int e = grant(sd, kind, id, bits, true)) return fail(e);
  unsigned special = st.st_mode & 07000u;
  if (sd.uid != st.st_uid || sd.gid != st.st_gid) {
    if (fchown(fd, sd.uid != st.st_uid ? static_cast<uid_t>(sd.uid) : static_cast<uid_t>(-1),
               sd.gid != st.st_gid ? static_cast<gid_t>(sd.gid) : static_cast<gid_t>(-1)) != 0)
      return -1;
    special &= ~static_cast<unsigned>(S_ISUID | S_ISGID);
  }
  if ((sd.mode | special) != (st.st_mode & 07777u) && fchmod(fd, static_cast<mode_t>(sd.mode | special)) != 0)
    return -1;
  return 0;
}

}  // namespace

int my_sid(void *sid, size_t size) noexcept { return unix_sid(1, static_cast<uint32_t>(geteuid()), sid, size); }

int user_sid(const char *user, const char *system, void *sid, size_t size) noexcept {
  if (system && !this_host(system, std::strlen(system)) && std::strcmp(system, "localhost") != 0) return fail(EINVAL);
  uint32_t id;
  int rc = find_user(user, id);
  if (rc == 0) return unix_sid(1, id, sid, size);
  if (rc != ENOENT) return fail(rc);
  if (const char *bs = std::strchr(user, '\\'); bs && bs[1] && this_host(user, static_cast<size_t>(bs - user))) {
    rc = find_user(bs + 1, id);
    if (rc == 0) return unix_sid(1, id, sid, size);
    if (rc != ENOENT) return fail(rc);
  }
  rc = find_group(user, id);
  if (rc == 0) return unix_sid(2, id, sid, size);
  return fail(rc);
}

int sd_init(void *sd, size_t size) noexcept { return store(sd, size, Sd{}); }

int sd_insert(void *p, size_t size, const void *sid, uint32_t access) noexcept {
  Sd sd;
  if (size < kSdSize) return fail(ERANGE);
  if (!load(p, sd)) return fail(EINVAL);
  int bits = rwx(access);
  if (bits < 0) return fail(EINVAL);
  uint32_t id = 0;
  Kind kind = classify(sid, id);
  if (!(sd.flags & kDacl)) sd.flags |= kDacl, sd.mode = 0;
  if (int e = grant(sd, kind, id, bits, false)) return fail(e);
  return store(p, size, sd);
}

int sd_access(const void *p, const void *sid, uint32_t *access) noexcept {
  Sd sd;
  if (!load(p, sd)) return fail(EINVAL);
  if (!(sd.flags & kDacl)) {
    *access = generic(7);
    return 0;
  }
  uint32_t id = 0;
  unsigned bits = 0;
  switch (classify(sid, id)) {
    case Kind::user:
      if ((sd.flags & kOwner) && sd.uid == id) bits = sd.mode >> 6 & 7;
      break;
    case Kind::group:
      if ((sd.flags & kGroup) && sd.gid == id) bits = sd.mode >> 3 & 7;
      break;
    case Kind::world:
      bits = sd.mode & 7;
      break;
    default:
      break;
  }
  *access = generic(bits);
  return 1;
}

int set_file_sd(const char *path, const void *p) noexcept {
  Sd sd;
  if (!load(p, sd)) return fail(EINVAL);
  struct stat st;
  if (lstat(path, &st) != 0) return -1;
  if (S_ISLNK(st.st_mode)) return fail(ELOOP);
  unsigned special = st.st_mode & 07000u;
  uid_t uid = (sd.flags & kOwner) && sd.uid != st.st_uid ? static_cast<uid_t>(sd.uid) : static_cast<uid_t>(-1);
  gid_t gid = (sd.flags & kGroup) && sd.gid != st.st_gid ? static_cast<gid_t>(sd.gid) : static_cast<gid_t>(-1);
  if (uid != static_cast<uid_t>(-1) || gid != static_cast<gid_t>(-1)) {
    if (fchownat(AT_FDCWD, path, uid, gid, AT_SYMLINK_NOFOLLOW) != 0) return -1;
    special &= ~static_cast<unsigned>(S_ISUID | S_ISGID);
  }
  if ((sd.flags & kDacl) || special != (st.st_mode & 07000u)) {
    unsigned mode = ((sd.flags & kDacl) ? sd.mode : st.st_mode & 0777u) | special;
    if (fchmodat(AT_FDCWD, path, static_cast<mode_t>(mode), AT_SYMLINK_NOFOLLOW) != 0) {
      // Systems that cannot change a mode without following links: through
      // a descriptor that refuses a link.
      if (errno != EOPNOTSUPP && errno != ENOTSUP) return -1;
      int fd = open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
      if (fd < 0) return -1;
      int rc = fchmod(fd, static_cast<mode_t>(mode));
      int e = errno;
      close(fd);
      errno = e;
      if (rc != 0) return -1;
    }
  }
  return 0;
}

int get_file_sd(const char *path, void *p, size_t size) noexcept {
  struct stat st;
  if (lstat(path, &st) != 0) return -1;
  Sd sd;
  sd.flags = kOwner | kGroup | kDacl;
  sd.uid = static_cast<uint32_t>(st.st_uid);
  sd.gid = static_cast<uint32_t>(st.st_gid);
  sd.mode = st.st_mode & 0777u;
  return store(p, size, sd);
}

int object_dacl(const char *object, const void *sid, uint32_t access) noexcept {
  uint32_t id = 0;
  Kind kind = classify(sid, id);
  int bits = rwx(access);
  if (kind == Kind::other || bits < 0) return fail(EINVAL);
  int fd = shm_open(object, O_RDONLY | O_CLOEXEC | O_NOFOLLOW, 0);
  if (fd < 0) return -1;
  int rc = apply_fd(fd, kind, id, bits);
  int e = errno;
  close(fd);
  errno = e;
  return rc;
}

int handle_dacl(intptr_t object, const void *sid, uint32_t access) noexcept {
  uint32_t id = 0;
  Kind kind = classify(sid, id);
  int bits = rwx(access);
  if (kind == Kind::other || bits < 0 || object < 0 || object > INT32_MAX) return fail(kind == Kind::other || bits < 0 ? EINVAL : EBADF);
  return apply_fd(static_cast<int>(object), kind, id, bits);
}

int user_name(char *out, size_t size) noexcept { return name_of_uid(geteuid(), out, size); }
int admin_name(char *out, size_t size) noexcept { return name_of_uid(0, out, size); }
bool is_admin() noexcept { return geteuid() == 0; }
int dc_name(const char *, char *, size_t) noexcept { return 0; }

}  // namespace ll::sec

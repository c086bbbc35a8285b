// Shared-memory blocks: the records, their names and operations tables, the
// lock word, and the error records of every failure. The operating-system
// objects of the "nt" kind come from proc/shmem_os.h.
#include <liblocal/shmem.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "proc/shmem_os.h"
#include <liblocal/catalog.h>
#include <liblocal/frame.h>
#include <liblocal/output.h>
#include <liblocal/security.h>
#include <liblocal/syserr.h>
#include "frame/fault.h"

namespace {

namespace os = ll::shm_os;

constexpr size_t kNameBuffer = 49;   // "nt:" + "Global\\" + "qztsm" + key, with room
constexpr uintptr_t kPrivateAlign = 8192;
constexpr int kEIO = 5;
constexpr int kENOMEM = 12;
constexpr int kEINVAL = 22;

// The record with what only the library sees behind it.
struct Record {
  shmem_obj pub;
  bool creator;        // made the object (POSIX: gives the name up at release)
  uint32_t pid;        // ... in this process (not a child that inherited it)
};

Record *rec_of(shmem_obj *o) noexcept { return reinterpret_cast<Record *>(o); }

// ------------------------------------------------------------------- lock

int lock_try(shmem_obj *o) {
  if (!o || !o->lock_word) return 0;
  volatile int *w = o->lock_word;
  // Read first: a busy word is not written, so waiters spinning on try-lock
  // keep the line shared until the holder lets go.
  if (__atomic_load_n(w, __ATOMIC_RELAXED) != 0) return 0;
  if (__atomic_exchange_n(w, -1, __ATOMIC_ACQUIRE) != 0) return 0;
  o->locked = 1;
  return 1;
}

int lock_give(shmem_obj *o) {
  if (!o) return 0;
  o->locked = 0;
  if (o->lock_word) __atomic_store_n(o->lock_word, 0, __ATOMIC_RELEASE);
  return 0;
}

int lock_reset(shmem_obj *o) {
  if (o && o->lock_word) __atomic_store_n(o->lock_word, 0, __ATOMIC_RELEASE);
  return 0;
}

// The lock word's offset, or false when the word would not fit the block.
bool lock_at(uint32_t size, uint32_t offset, uint32_t &at) noexcept {
  const uint64_t a = (static_cast<uint64_t>(offset) + 15) & ~uint64_t{15};
  if (a + sizeof(int) > size) return false;
  at = static_cast<uint32_t>(a);
  return true;
}

// ------------------------------------------------------------ the "nt" kind

void nt_free(shmem_obj *o) noexcept {
  Record *r = rec_of(o);
  os::Mapping m{o->mapping, o->base};
  if (m.base || m.handle)
    os::close(o->name + 3, o->size, m, r->creator && r->pid == os::process());
  std::free(o->name);
  std::free(r);
}

void nt_release_if_present(shmem_obj *o) {
  if (o) nt_free(o);
}

void nt_release(shmem_obj **op) {
  if (!op || !*op) return;
  shmem_obj *o = *op;
  if (o->locked) lock_give(o);
  nt_free(o);
  *op = nullptr;
}

// ------------------------------------------------------------ private kind

void priv_free(shmem_obj *o) noexcept {
  std::free(o->buffer);
  std::free(o->name);
  std::free(rec_of(o));
}

void priv_release_if_present(shmem_obj *o) {
  if (o) priv_free(o);
}

void priv_release(shmem_obj **op) {
  if (!op || !*op) return;
  priv_free(*op);
  *op = nullptr;
}

const shmem_ops kNtOps = {nt_release_if_present, nt_release, lock_try, lock_give, lock_reset};
const shmem_ops kPrivateOps = {priv_release_if_present, priv_release, lock_try, lock_give, lock_reset};

// ------------------------------------------------------------ error records

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
// A system record of 'number' with catalog message 'msg' formatted with the
// two texts.
qzerror *record(int number, int msg, const char *english, const char *a, const char *b) noexcept {
  char fmt[1024];
  qzcatgets_buf(fmt, sizeof fmt, Catd, 17, msg, english);
  qzerror *e = err_setstr(QZERR_T_SYSTEM, number, fmt, a, b);
  return e ? e : err_setall(QZERR_T_SYSTEM, 0, number, nullptr);
}
#pragma GCC diagnostic pop

qzerror *no_memory() noexcept {
  errno = kENOMEM;
  return err_setall(QZERR_T_SYSTEM, 0, kENOMEM, nullptr);
}

Record *new_record(size_t name_size) noexcept {
  auto *r = LL_FAULT(alloc) ? nullptr : static_cast<Record *>(std::calloc(1, sizeof(Record)));
  if (!r) return nullptr;
  r->pub.name = LL_FAULT(alloc) ? nullptr : static_cast<char *>(std::calloc(1, name_size));
  if (!r->pub.name) {
    std::free(r);
    return nullptr;
  }
  r->pid = os::process();
  return r;
}

// ------------------------------------------------------------ create / map

qzerror *create_nt(uint32_t key, uint32_t size, uint32_t offset, shmem_obj **out) noexcept {
  Record *r = new_record(kNameBuffer);
  if (!r) return no_memory();
  shmem_obj *o = &r->pub;
  o->ops = &kNtOps;
  o->size = size;
  std::snprintf(o->name, kNameBuffer, "nt:%sqztsm%u", os::name_prefix(), static_cast<unsigned>(key));

  uint32_t at = 0;
  bool ok = false;
  if (size == 0 || !lock_at(size, offset, at)) {
    errno = kEINVAL;
  } else {
    os::Mapping m;
    bool existed = false;
    if (os::create(o->name + 3, size, m, existed)) {
      ok = true;
      r->creator = true;
      o->mapping = m.handle;
      o->base = m.base;
      o->lock_word = reinterpret_cast<volatile int *>(static_cast<char *>(o->base) + at);
      // The creator always starts from a clean block with its lock free. A
      // fresh object reads as zeros already: its pages are left untouched.
      if (existed) {
        dprintf(1, "Shared memory object %s already exists!!!\n", o->name);
        std::memset(o->base, 0, size);
        lock_reset(o);
      }
    }
  }
  if (ok) {
    *out = o;
    return nullptr;
  }
  const int err = errno;
  qzerror *e = record(kEIO, 954, "failed to create shmem object %s: %s", o->name, qzmo_strerror(err));
  err_print(e);
  std::free(o->name);
  std::free(r);
  dprintf(2, "nt shmem create failed: %s\n", e->text);
  dprintf(1, "unable to allocate shared memory: %s\n", e->text);
  errno = err;
  return e;
}

qzerror *create_private(uint32_t size, uint32_t offset, shmem_obj **out) noexcept {
  uint32_t at = 0;
  if (size == 0 || !lock_at(size, offset, at)) {
    errno = kEINVAL;
    return err_setall(QZERR_T_SYSTEM, 0, kEINVAL, nullptr);
  }
  const uint64_t total = static_cast<uint64_t>(size) + (kPrivateAlign - 1);
  Record *r = total <= SIZE_MAX ? new_record(1) : nullptr;
  void *buf = r && !LL_FAULT(alloc) ? std::calloc(1, static_cast<size_t>(total)) : nullptr;
  if (!buf) {
    if (r) {
      std::free(r->pub.name);
      std::free(r);
    }
    errno = kENOMEM;
    qzperror(getMyname());
    return no_memory();
  }
  shmem_obj *o = &r->pub;
  o->ops = &kPrivateOps;
  o->size = size;
  o->buffer = buf;
  const uintptr_t p = (reinterpret_cast<uintptr_t>(buf) + kPrivateAlign - 1) & ~(kPrivateAlign - 1);
  o->base = reinterpret_cast<void *>(p);
  o->lock_word = reinterpret_cast<volatile int *>(static_cast<char *>(o->base) + at);
  *out = o;
  return nullptr;
}

// A mapping name the library will hand to the system: not empty, bounded,
// no directory separators and no "..".
bool valid_mapping_name(const char *n) noexcept {
  const size_t len = std::strlen(n);
  if (len == 0 || len > SHMEM_NAME_MAX) return false;
  if (std::strchr(n, '/') || std::strstr(n, "..")) return false;
  for (const char *p = n; *p; ++p)
    if (static_cast<unsigned char>(*p) < 0x20) return false;
  return true;
}

}  // namespace

extern "C" {

LL_API qzerror *shmem_create(unsigned int key, unsigned int size, unsigned int lock_offset, int kind,
                             shmem_obj **out) noexcept {
  if (!out) {
    errno = kEINVAL;
    return err_setall(QZERR_T_SYSTEM, 0, kEINVAL, nullptr);
  }
  *out = nullptr;
  return kind ? create_nt(key, size, lock_offset, out) : create_private(size, lock_offset, out);
}

LL_API qzerror *shmem_map(const char *name, unsigned int size, unsigned int lock_offset,
                          shmem_obj **out) noexcept {
  if (out) *out = nullptr;
  if (!name || !out) {
    errno = kEINVAL;
    return record(kEINVAL, 952, "unable to handle shmem name `%s'\n", name ? name : "(null)", nullptr);
  }
  const char *colon = std::strchr(name, ':');
  const char *mapping = name;
  if (colon) {
    const size_t klen = static_cast<size_t>(colon - name);
    if (klen != 2 || std::strncmp(name, "nt", 2) != 0) {
      char kind[64];
      std::snprintf(kind, sizeof kind, "%.*s", static_cast<int>(klen < 63 ? klen : 63), name);
      errno = kEINVAL;
      return record(kEINVAL, 953, "not compiled to support shmem type `%s' for `%s'\n", kind, name);
    }
    mapping = colon + 1;
  }
  const size_t nlen = std::strlen(name);
  Record *r = nlen <= SHMEM_NAME_MAX + 3 ? new_record(nlen + 1) : nullptr;
  if (nlen <= SHMEM_NAME_MAX + 3 && !r) return no_memory();
  shmem_obj *o = r ? &r->pub : nullptr;

  uint32_t at = 0;
  bool ok = false;
  if (!o || size == 0 || !valid_mapping_name(mapping) || !lock_at(size, lock_offset, at)) {
    errno = kEINVAL;
  } else {
    std::memcpy(o->name, name, nlen + 1);
    o->ops = &kNtOps;
    o->size = size;
    os::Mapping m;
    if (os::open(mapping, size, m)) {
      ok = true;
      o->mapping = m.handle;
      o->base = m.base;
      o->lock_word = reinterpret_cast<volatile int *>(static_cast<char *>(o->base) + at);
    }
  }
  if (ok) {
    *out = o;
    return nullptr;
  }
  const int err = errno;
  qzerror *e = record(kEIO, 955, "failed to map shmem object %s: %s", name, qzmo_strerror(err));
  err_print(e);
  if (r) {
    std::free(o->name);
    std::free(r);
  }
  if (!colon) {
    e = record(kEINVAL, 952, "unable to handle shmem name `%s'\n", name, nullptr);
    dprintf(1, "%s", e->text);
  }
  errno = err;
  return e;
}

LL_API qzerror *shmem_secure(shmem_obj **objp, unsigned int mask, const char *user,
                             const char *domain) noexcept {
  if (!objp || !*objp) return nullptr;
  shmem_obj *o = *objp;
  if (o->ops == &kNtOps) {
    unsigned char sid[QZ_SID_MAX];
    const int n = user ? get_user_sid(user, domain, sid, sizeof sid) : get_my_sid(sid, sizeof sid);
    if (n > 0 && os::grant(o->mapping, o->name + 3, mask, sid)) return nullptr;
  } else {
    errno = kEINVAL;  // a private block has nothing to secure
  }
  const int err = errno;
  qzerror *e = record(kEIO, 993, "failed to secure shmem object %s: %s", o->name, qzmo_strerror(err));
  errno = err;
  return e;
}

}  // extern "C"

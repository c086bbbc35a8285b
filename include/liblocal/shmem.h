/*
 * liblocal/shmem.h - named shared memory with its lock word.
 *
 * A creator makes a block under a numeric key; other processes map it by
 * name; a one-word spin lock lives inside the block. Two kinds exist: an
 * operating-system object shared between processes ("nt") and a private
 * block in the creator's own memory, shared only between its threads.
 *
 * Names. The object of key K is called "nt:Global\qztsm<K>" (one backslash;
 * the part after "nt:" is the mapping name). Windows systems before major
 * version 5 have no "Global\" prefix. On a POSIX system the prefix is always
 * there and the object is the named shared memory "/Global\qztsm<K>" (the
 * mapping name behind a "/"; the backslash is an ordinary character there).
 *
 * The lock word is a 32-bit integer at base + the lock offset rounded up to
 * a multiple of 16: 0 free, -1 held. Taking it is an atomic exchange with
 * acquire ordering, giving it back a store with release ordering, the same on
 * every platform and between 32-bit and 64-bit processes. The lock has no
 * owner and no waiting: a caller that finds it busy retries itself, and
 * unlock does not check who holds it. The word must lie inside the block.
 *
 * Every operation through the record is reached as obj->ops->slot(...); the
 * two release operations accept null. Errors come back as the thread's
 * current error record (liblocal/errrec.h); null means success.
 */
#ifndef LIBLOCAL_SHMEM_H
#define LIBLOCAL_SHMEM_H

#include "errrec.h"
#include "export.h"

LL_BEGIN_DECLS

typedef struct shmem_obj shmem_obj;

/* The operations of one kind, in slot order. */
typedef struct shmem_ops {
  /* Unmaps and frees the record when it is not null (the lock word is left
   * as it is). */
  void (*release_if_present)(shmem_obj *obj);
  /* Gives the lock back if this record holds it, unmaps the block, closes the
   * object, frees the record and stores null in *objp. */
  void (*release)(shmem_obj **objp);
  /* 1 when the lock was free and is now held by this record, 0 when busy. */
  int (*try_lock)(shmem_obj *obj);
  /* Clears 'locked' and frees the lock word; returns 0. */
  int (*unlock)(shmem_obj *obj);
  /* Frees the lock word whoever holds it; returns 0. */
  int (*reset_lock)(shmem_obj *obj);
} shmem_ops;

/* The object record. The library allocates it; release it through its ops. */
struct shmem_obj {
  char *name;              /* "nt:" + mapping name; "" for a private block */
  unsigned int size;       /* bytes, as requested */
  void *base;              /* the block in this process */
  const shmem_ops *ops;    /* the operations of its kind */
  int locked;              /* 1 while this record holds the lock */
  volatile int *lock_word; /* base + lock offset rounded up to 16 */
  void *mapping;           /* the OS object ("nt" kind): a HANDLE on Windows,
                              the descriptor (cast) on POSIX */
  void *buffer;            /* the allocation behind a private block */
};

/* Kinds for shmem_create. */
#define SHMEM_PRIVATE 0
#define SHMEM_NT 1

/* Access masks for shmem_secure (the section rights of Windows). On POSIX
 * any mask with a write right grants read and write, else read only. */
#define SHMEM_ACCESS_WRITE 0x0002u
#define SHMEM_ACCESS_READ 0x0004u
#define SHMEM_ACCESS_ALL 0x000F001Fu

/* The longest mapping name shmem_map accepts (bytes, without "nt:"). */
#define SHMEM_NAME_MAX 200

/* Creates the block of 'key' with 'size' bytes, zero-filled, with its lock
 * word free, and stores its record in *out (null on failure).
 *
 * Kind "nt" (any non-zero kind): an object only the calling user (and the
 * system) may open. When the object exists already it is used again - its
 * debug line "Shared memory object %s already exists!!!" is written at level
 * 1 and the block is cleared - provided it belongs to the calling user and
 * nobody else may write to it; otherwise the create fails. Failures give an
 * error record with EIO and "failed to create shmem object %s: %s" (also
 * printed on standard error). On POSIX the creator's release (in the process
 * that created it) removes the name; mappers keep their view until they
 * release it.
 *
 * Private kind (0): a block aligned to 8192 bytes in this process; its lock
 * word is set as for "nt". Out of memory: ENOMEM in errno and the record.
 *
 * A size of 0, or a lock offset that puts the word outside the block, fails
 * without creating anything (EINVAL). */
LL_API qzerror *shmem_create(unsigned int key, unsigned int size, unsigned int lock_offset, int kind,
                             shmem_obj **out) LL_NOEXCEPT;

/* Maps the existing block 'name' ("nt:" + mapping name, or a mapping name
 * alone) of 'size' bytes (at most the object's size) and stores its record
 * in *out; the block is neither cleared nor its lock reset. Another kind
 * than "nt" before a colon fails with EINVAL and "not compiled to support
 * shmem type `%s' for `%s'". A failure to open or map gives EIO and "failed
 * to map shmem object %s: %s" (printed on standard error); for a name without
 * a colon the record returned then is EINVAL with "unable to handle shmem
 * name `%s'". Mapping names hold no "/" and no "..", and are at most
 * SHMEM_NAME_MAX bytes. */
LL_API qzerror *shmem_map(const char *name, unsigned int size, unsigned int lock_offset,
                          shmem_obj **out) LL_NOEXCEPT;

/* Grants 'user' ("user", "DOMAIN\user" or "user@realm"; null: the calling
 * user) the access 'mask' to the object of *objp. 'domain' names the system
 * that resolves the name (null: this one; POSIX accepts only this host).
 * Null objp or *objp: nothing to do. Failure (an unknown user, a private
 * block, no right to change the object): EIO and "failed to secure shmem
 * object %s: %s".
 * Windows: an allowing entry for the user in the object's DACL. POSIX: the
 * user becomes the owner of the object, with read and write or read only
 * for the owner (so one user at a time is granted; changing the owner needs
 * the privilege to do so, unless the user is the caller). */
LL_API qzerror *shmem_secure(shmem_obj **objp, unsigned int mask, const char *user,
                             const char *domain) LL_NOEXCEPT;

LL_END_DECLS

#endif

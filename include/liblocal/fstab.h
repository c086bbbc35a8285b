/*
 * liblocal/fstab.h - the table of mounted file systems and local save sets.
 *
 * getfstab builds, once per process, a list of the file systems the host has
 * mounted and keeps it until donefstab. On Windows the list holds the logical
 * drives with the volume mount points below them (followed down), the volumes
 * that have neither a drive letter nor a mount point, and the pseudo file
 * systems that stand for system state. On POSIX it is the system's own mount
 * table (/proc/self/mountinfo), read without touching a mount point, so a
 * hung network mount never hangs the caller.
 *
 * Of several mount directories of one volume (serial), the shallowest and
 * then the shortest stays active; the others carry "ignore" in their options.
 *
 * The list runs from the last entry found to the first. It is read without a
 * lock and stays valid until donefstab; a program that calls donefstab while
 * another thread reads the list owns the outcome.
 */
#ifndef LIBLOCAL_FSTAB_H
#define LIBLOCAL_FSTAB_H

#include "export.h"

LL_BEGIN_DECLS

/* One mounted file system. Every text belongs to the table. */
typedef struct qz_fsent {
  /* The volume mounted: its volume name, or the mount directory when it has
   * none; for a substituted drive letter, the target; for a pseudo file
   * system its own name ("SYSTEM STATE:\"). On POSIX the mount source
   * ("/dev/sda1", "server:/export", "tmpfs"). */
  char *fs_device;
  /* Where it is mounted: "C:\", "C:\mnt\data\", "\\server\share" for a
   * network drive; on POSIX the mount directory ("/", "/home"). */
  char *fs_dir;
  /* Windows: "removable", "remote", "cdrom", "ramdisk", "mntpt" (reached
   * through a mount point), "loop" (a mount point that leads back to a volume
   * above it), or the volume's file-system name ("NTFS"). POSIX: the type the
   * mount table gives ("ext4", "nfs4", "fuse.sshfs"). */
  char *fs_type;
  /* Comma-separated words. Windows: "ignore" (not to be saved on its own) or
   * empty. POSIX: the mount's options ("rw,relatime", "ro,nosuid"), with
   * "ignore," in front when another mount directory of the same volume is
   * the one to save. */
  char *fs_opts;
  /* Volume serial number; 0 when the volume was not ready. On POSIX the
   * device number (major << 20 ^ minor). */
  uint32_t fs_serial;
  int32_t fs_spare; /* always 0 */
} qz_fsent_t;

/* A node of the table. name is the mount directory without its trailing
 * separator ("C:", "C:\mnt\data", "SYSTEM STATE:"; on POSIX "/" stays "/"). */
typedef struct qz_fstab {
  struct qz_fstab *next;
  qz_fsent_t *ent;
  char *name;
} qz_fstab_t;

/* Stores 0 through out (when not null) and returns the head of the table,
 * building it on the first call; concurrent first calls build it once. When
 * the system's list of drives (POSIX: the mount table) cannot be read, the
 * result is null with errno set, and the next call tries again. */
LL_API qz_fstab_t *getfstab(int *out) LL_NOEXCEPT;

/* Frees the table; the next getfstab builds it again from the system. */
LL_API void donefstab(void) LL_NOEXCEPT;

/* 1 when node is a local file system to be saved; 0 when one of its options
 * is "ignore", "nobackups" or "ro", when its type is one that is never saved
 * (network, removable, optical, memory and pseudo file systems), or when
 * node is null. */
LL_API int is_local_saveset(const qz_fstab_t *node) LL_NOEXCEPT;

/* 1 when the volume that holds path reports exactly the file-system name
 * type ("NTFS", "ext4"); 0 otherwise, and 0 when type or path is null or
 * empty. When the volume cannot be asked, prints message 187 ("<path>:
 * unable to get volume information about file system, <error>.") through
 * the user error printer and returns 0. */
LL_API int isfilesystemtype(const char *path, const char *type) LL_NOEXCEPT;

LL_END_DECLS

#endif

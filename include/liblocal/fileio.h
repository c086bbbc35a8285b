/*
 * liblocal/fileio.h - the POSIX file layer.
 *
 * The calls a program ported from POSIX expects, with UTF-8 names on every
 * platform (UTF-16 at the Windows boundary) and failures as -1 or null with
 * errno set to a POSIX number.
 *
 * Names the C library also defines (open64, creat64, lseek64, stat64,
 * fstat64, lstat64, lockf, mkstemp, mkdtemp, statfs, fstatfs) are exported as
 * ll_<name>; this header maps the plain names to them, so that
 *     struct stat64 st;  stat64(path, &st);
 *     struct statfs fs;  statfs(path, &fs);
 * use the library's records and calls. The records have the same fixed
 * layout on every platform.
 */
#ifndef LIBLOCAL_FILEIO_H
#define LIBLOCAL_FILEIO_H

#include "export.h"

#include <stdio.h>
#include <fcntl.h>
#include <sys/types.h>
#include <sys/stat.h>
#if defined(_WIN32)
#include <io.h>
#else
#include <unistd.h>
#include <sys/vfs.h>
#endif
#include <stdlib.h>

/* ---- records ---- */

/* File status. Times are seconds and nanoseconds since 1970 (UTC). Where the
 * system header spells st_mtime as st_mtim.tv_sec, so does this record. */
struct ll_timespec {
  int64_t tv_sec;
  int64_t tv_nsec;
};
struct ll_stat64 {
  uint64_t st_dev;
  uint64_t st_ino;
  uint32_t st_mode;  /* S_IFMT bits as on POSIX: 0170000 type, 0777 permissions */
  uint32_t st_nlink;
  uint32_t st_uid;
  uint32_t st_gid;
  uint64_t st_rdev;
  int64_t st_size;
  int64_t st_blksize;
  int64_t st_blocks; /* 512-byte blocks */
#if defined(st_atime)
  struct ll_timespec st_atim;
  struct ll_timespec st_mtim;
  struct ll_timespec st_ctim;
#else
  int64_t st_atime;
  int64_t st_atime_nsec;
  int64_t st_mtime;
  int64_t st_mtime_nsec;
  int64_t st_ctime;
  int64_t st_ctime_nsec;
#endif
};

/* File-system space. Counts are in units of f_bsize. */
struct ll_statfs {
  int64_t f_type;    /* the system's file-system magic; 0 on Windows */
  int64_t f_bsize;
  uint64_t f_blocks;
  uint64_t f_bfree;  /* free blocks */
  uint64_t f_bavail; /* free blocks the caller may use */
  uint64_t f_files;  /* 0 where the system does not count nodes */
  uint64_t f_ffree;
  uint32_t f_fsid[2];
  int64_t f_namelen;
  int64_t f_frsize;
};

/* One directory entry of qz_readdir. */
#define QZ_DT_UNKNOWN 0
#define QZ_DT_DIR 4
#define QZ_DT_REG 8
#define QZ_DT_LNK 10
struct qz_dirent {
  uint64_t d_ino;    /* 0 where the system gives none */
  uint32_t d_type;   /* QZ_DT_* */
  char d_name[1560]; /* UTF-8 */
};
typedef struct qz_dir QZDIR;

/* ---- the plain names ---- */
#undef open64
#undef creat64
#undef lseek64
#undef stat64
#undef fstat64
#undef lstat64
#undef lockf
#undef mkstemp
#undef mkdtemp
#undef statfs
#undef fstatfs
#define open64 ll_open64
#define creat64 ll_creat64
#define lseek64 ll_lseek64
#define stat64 ll_stat64
#define fstat64 ll_fstat64
#define lstat64 ll_lstat64
#define lockf ll_lockf
#define mkstemp ll_mkstemp
#define mkdtemp ll_mkdtemp
#define statfs ll_statfs
#define fstatfs ll_fstatfs

#ifndef O_BINARY
#define O_BINARY 0
#endif
#ifndef F_ULOCK
#define F_ULOCK 0
#define F_LOCK 1
#define F_TLOCK 2
#define F_TEST 3
#endif

LL_BEGIN_DECLS

/* ---- descriptors and streams ---- */
/* fopen with a UTF-8 name; files are opened in binary mode on Windows. */
LL_API FILE *qzfopen(const char *name, const char *mode) LL_NOEXCEPT;
LL_API int qzfclose(FILE *fp) LL_NOEXCEPT;
/* open(2) with a UTF-8 name and large-file offsets; mode is read when
 * O_CREAT is given. Descriptors are binary on Windows. */
LL_API int ll_open64(const char *name, int flags, ...) LL_NOEXCEPT;
LL_API int ll_creat64(const char *name, unsigned int mode) LL_NOEXCEPT;
LL_API int qzclose(int fd) LL_NOEXCEPT;
LL_API int64_t ll_lseek64(int fd, int64_t offset, int whence) LL_NOEXCEPT;

/* ---- status ---- */
/* stat with a UTF-8 name into the library's record; qzstat is the same call
 * under the library's own name. lstat64 does not follow a final symbolic
 * link (on Windows it is stat64). */
LL_API int qzstat(const char *name, struct ll_stat64 *st) LL_NOEXCEPT;
LL_API int ll_stat64(const char *name, struct ll_stat64 *st) LL_NOEXCEPT;
LL_API int ll_lstat64(const char *name, struct ll_stat64 *st) LL_NOEXCEPT;
LL_API int ll_fstat64(int fd, struct ll_stat64 *st) LL_NOEXCEPT;

/* ---- locks ----
 * lockf(3) on the range [current offset, current offset + len) (len 0: to the
 * end of file and beyond): F_LOCK waits, F_TLOCK fails with EAGAIN when
 * another process holds a lock, F_ULOCK releases, F_TEST answers 0 when the
 * range is free and -1 with EAGAIN when not. Locks are per process and
 * advisory on POSIX, mandatory on Windows. */
LL_API int ll_lockf(int fd, int cmd, int64_t len) LL_NOEXCEPT;

/* ---- directories ----
 * qz_opendir lists every entry but "." and "..", in the system's order.
 * qz_readdir returns a record owned by the stream (valid until the next call)
 * or null at the end (errno unchanged) or on failure (errno set). */
LL_API QZDIR *qz_opendir(const char *name) LL_NOEXCEPT;
LL_API struct qz_dirent *qz_readdir(QZDIR *dir) LL_NOEXCEPT;
LL_API void qz_rewinddir(QZDIR *dir) LL_NOEXCEPT;
LL_API int qz_closedir(QZDIR *dir) LL_NOEXCEPT;

/* ---- temporary files ----
 * mkstemp/mkdtemp: the template ends in "XXXXXX", which is replaced to make a
 * new file (opened read-write, mode 0600) or directory (mode 0700). */
LL_API int ll_mkstemp(char *templ) LL_NOEXCEPT;
LL_API char *ll_mkdtemp(char *templ) LL_NOEXCEPT;

/* ---- trees ----
 * qz_mkdirs makes a directory and every missing parent (mkdir -p); an
 * existing directory is success, an existing non-directory fails with
 * EEXIST. qz_rmtree removes a file, or a directory with everything below it,
 * without following symbolic links; it goes on after a failure and reports
 * the first. */
LL_API int qz_mkdirs(const char *path, unsigned int mode) LL_NOEXCEPT;
LL_API int qz_rmtree(const char *path) LL_NOEXCEPT;

/* rename(2) with UTF-8 names: replaces an existing file of the new name
 * atomically where the system can. On failure both names are as they were. */
LL_API int qzrename(const char *oldname, const char *newname) LL_NOEXCEPT;

/* ---- names ----
 * fmatch: 1 when name matches pattern, else 0. "*" matches any run of
 * characters, "?" one character (a whole UTF-8 sequence), "[...]" one of a
 * set with ranges ("[a-z]") and "!" or "^" for negation; no escapes. Letters
 * compare as the platform's file names do: case-insensitively (ASCII) on
 * Windows, exactly on POSIX. fmatch_case chooses (icase nonzero: ignore case). */
LL_API int fmatch(const char *pattern, const char *name) LL_NOEXCEPT;
LL_API int fmatch_case(const char *pattern, const char *name, int icase) LL_NOEXCEPT;

/* Absolute, canonical name of name in buf (size bytes), with the platform's
 * separator; symbolic links are not resolved and the file need not exist.
 * Null with ERANGE when it does not fit, or with errno from the current
 * directory. fullpath2 with QZ_FULLPATH_NETWORK in mode also replaces a
 * mapped network drive by the network name behind it ("\\server\share\...");
 * on POSIX it is fullpath. */
#define QZ_FULLPATH_NETWORK 2
LL_API char *fullpath(const char *name, char *buf, size_t size) LL_NOEXCEPT;
LL_API char *fullpath2(const char *name, char *buf, size_t size, int mode) LL_NOEXCEPT;

/* The last component of name spelled as it is stored on disk, in buf. Null
 * when name does not exist (errno ENOENT) or is a root (errno EINVAL), or
 * with ERANGE when it does not fit. */
LL_API char *real_name(const char *name, char *buf, size_t size) LL_NOEXCEPT;

/* Closes every descriptor above standard error (POSIX: 3 and up; Windows:
 * nothing, handles are not inherited unless asked for). */
LL_API void qz_close_most(void) LL_NOEXCEPT;

/* ---- space ---- */
LL_API int ll_statfs(const char *path, struct ll_statfs *buf) LL_NOEXCEPT;
LL_API int ll_fstatfs(int fd, struct ll_statfs *buf) LL_NOEXCEPT;
/* Bytes in the file system holding path: total, free for the caller and in
 * use (any pointer may be null). 0 or -1. */
LL_API int qz_diskusage(const char *path, uint64_t *total, uint64_t *avail, uint64_t *used) LL_NOEXCEPT;

LL_END_DECLS

#endif

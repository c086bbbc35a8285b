/*
 * liblocal/wfile.h - UTF-8 file-system calls and UNC names.
 *
 * One utf8_ routine per platform file-system operation, taking and giving
 * UTF-8 names. On Windows each converts its names to UTF-16 (or, on the 9x
 * class, Win32OSVersion() == 4, to the ANSI code page) and calls the W (or A)
 * form of the operation. Names of the NT family that are neither UNC nor
 * already "\\?\" get the "\\?\" prefix in the attribute and volume-path calls,
 * so long names work there.
 *
 * Errors. Each routine says which of three conventions it follows:
 *   raw     errno = the platform's last error with bit 28 set (0x10000000),
 *           or 0 when the platform reported none;
 *   mapped  errno = that value mapped to a POSIX number;
 *   none    errno is left alone; ask the platform.
 * A name that cannot be converted fails without touching errno. On POSIX
 * every routine exists with the meaning a POSIX caller expects and errno is
 * always the system's own number.
 *
 * Windows types appear as fixed-size integers: handles and security records
 * as void *, search handles as intptr_t (-1 on failure), DWORD as uint32_t.
 */
#ifndef LIBLOCAL_WFILE_H
#define LIBLOCAL_WFILE_H

#include "export.h"
#include "fileio.h"

LL_BEGIN_DECLS

/* ---- UNC names (pure string routines) ----
 * UNC object types: 0 not UNC, 1 file share, 2 named pipe, 3 physical drive
 * or a device named by a drive letter ("\\.\C:"), 4 tape. */
#define QZ_UNC_NONE 0
#define QZ_UNC_SHARE 1
#define QZ_UNC_PIPE 2
#define QZ_UNC_DRIVE 3
#define QZ_UNC_TAPE 4

/* Nonzero when name begins with two backslashes and is not a "\\?\" long
 * name, or is the "\\?\UNC\" form: "\\h\s", "\\.\pipe\x", "\\?\UNC\h\s". */
LL_API int is_unc_path(const char *name) LL_NOEXCEPT;
/* Past the prefix "\\?\UNC\" (any case), "\\?\", "\\" or "\??\UNC\". */
LL_API const char *unc_skip_prefix(const char *name) LL_NOEXCEPT;
/* Object type of a UNC name; 0 when name is not UNC (is_unc_path, or the
 * native "\??\UNC\" form) or has no backslash after the host. */
LL_API int get_unc_obj_type(const char *name) LL_NOEXCEPT;
/* The backslash that ends the share name (the file part), or null. */
LL_API const char *get_unc_file_path(const char *name) LL_NOEXCEPT;
/* 1 when the host of the UNC name is this machine ("." or the computer name,
 * any case). With dst, stores the host (this machine's name when local) in
 * at most len bytes including the terminator. 0 for a name that is not UNC. */
LL_API int get_unc_host(const char *name, char *dst, size_t len) LL_NOEXCEPT;

/* ---- the find record ---- */
#define QZ_FILE_ATTRIBUTE_READONLY 0x1u
#define QZ_FILE_ATTRIBUTE_HIDDEN 0x2u
#define QZ_FILE_ATTRIBUTE_SYSTEM 0x4u
#define QZ_FILE_ATTRIBUTE_DIRECTORY 0x10u
#define QZ_FILE_ATTRIBUTE_ARCHIVE 0x20u
#define QZ_FILE_ATTRIBUTE_NORMAL 0x80u
#define QZ_FILE_ATTRIBUTE_REPARSE_POINT 0x400u
#define QZ_IO_REPARSE_TAG_MOUNT_POINT 0xA0000003u
#define QZ_IO_REPARSE_TAG_SYMLINK 0xA000000Cu
#define QZ_INVALID_FILE_ATTRIBUTES 0xFFFFFFFFu
#define QZ_FIND_VOLUME_MOUNT_POINT 2u /* trailer[2] of a volume mount point */

/* File times are 100-ns units since 1601-01-01 UTC, low word first. */
typedef struct qz_finddata {
  uint32_t attributes;
  uint32_t creation_time[2];
  uint32_t access_time[2];
  uint32_t write_time[2];
  uint32_t size_high;
  uint32_t size_low;
  uint32_t reserved0; /* reparse tag of a reparse point */
  uint32_t reserved1;
  char name[1560];    /* UTF-8 */
  uint32_t trailer[3];
} qz_finddata_t;

/* First entry matching pattern ("*" any run, "?" one character; "*.*" is
 * every name). Returns the search handle or -1 (mapped). When the last
 * component of the pattern holds no wildcard, the entry spelled exactly as
 * asked is preferred over one matched through case or a short alias; with
 * exact set, only that spelling is accepted. Trailing ".", "/" and "\" of the
 * pattern are ignored for that comparison. On POSIX the record is filled
 * from stat(): directory, read-only (no owner write), hidden (leading dot),
 * reparse point (symbolic link, tag QZ_IO_REPARSE_TAG_SYMLINK) or normal;
 * times converted to the same 100-ns units; names compare case-sensitively. */
LL_API intptr_t utf8_findfirst(const char *pattern, qz_finddata_t *rec) LL_NOEXCEPT;
LL_API intptr_t utf8_findfirstex(const char *pattern, qz_finddata_t *rec, int exact) LL_NOEXCEPT;
/* Next entry: nonzero on success, 0 at the end (none set). */
LL_API int utf8_findnext(intptr_t handle, qz_finddata_t *rec) LL_NOEXCEPT;
LL_API int utf8_findclose(intptr_t handle) LL_NOEXCEPT;

/* ---- directories ----
 * Lengths in bytes without the terminator; 0 on failure (none set). On
 * POSIX the Windows directory is "/", the system directory "/usr/bin" and
 * the temporary path $TMPDIR (or "/tmp") with a trailing "/". */
LL_API unsigned int utf8_getwindowsdirectory(char *buf, unsigned int size) LL_NOEXCEPT;
LL_API unsigned int utf8_getsystemdirectory(char *buf, unsigned int size) LL_NOEXCEPT;
LL_API unsigned int utf8_gettemppath(unsigned int size, char *buf) LL_NOEXCEPT;
/* "<dir>\<first 3 of prefix><hex>.tmp" in out (at most 260 bytes). With
 * unique 0 a fresh number is chosen and the file created empty; otherwise
 * the name is only built. Returns the number used, 0 on failure (none set). */
LL_API unsigned int utf8_gettempfilename(const char *dir, const char *prefix, unsigned int unique,
                                         char *out) LL_NOEXCEPT;
/* Nonzero on success (mapped). */
LL_API int utf8_setcurrentdirectory(const char *path) LL_NOEXCEPT;
/* 0 or -1 (mapped). */
LL_API int utf8_chdir(const char *path) LL_NOEXCEPT;
/* The platform's text of the current directory; length, 0 on failure (raw). */
LL_API unsigned int utf8_getcurrentdirectory(unsigned int size, char *buf) LL_NOEXCEPT;
/* The current directory rebuilt from the names as stored on disk ("C:\" at a
 * root). buf null: allocates size bytes. Null when it does not fit, or with
 * errno 13 when a parent cannot be entered. It moves the process's current
 * directory while it works: call qzmo_getcwd from threaded code. */
LL_API char *utf8_getcwd(char *buf, int size) LL_NOEXCEPT;

/* ---- attributes and names ---- */
/* Platform result (raw). On POSIX only the read-only bit has an effect. */
LL_API int utf8_setfileattributes(const char *path, uint32_t attrs) LL_NOEXCEPT;
/* Attributes or QZ_INVALID_FILE_ATTRIBUTES (raw). */
LL_API uint32_t utf8_getfileattributes(const char *path) LL_NOEXCEPT;
/* Platform result (raw). POSIX has no security descriptors: succeeds when
 * the file exists. */
LL_API int utf8_setfilesecurity(const char *path, uint32_t info, void *descriptor) LL_NOEXCEPT;
/* 0 or -1 (mapped). */
LL_API int utf8_unlink(const char *path) LL_NOEXCEPT;
LL_API int utf8_rmdir(const char *path) LL_NOEXCEPT;
LL_API int utf8_chmod(const char *path, int mode) LL_NOEXCEPT;
LL_API int utf8_mkdir(const char *path) LL_NOEXCEPT;
/* Nonzero on success (mapped). security may be null. */
LL_API int utf8_createdirectory(const char *path, void *security) LL_NOEXCEPT;
/* Flags as MoveFileEx: QZ_MOVEFILE_REPLACE_EXISTING replaces a file of the new
 * name, otherwise an existing new name fails. Nonzero on success (raw). A
 * failed move leaves both names as they were. */
#define QZ_MOVEFILE_REPLACE_EXISTING 0x1u
#define QZ_MOVEFILE_COPY_ALLOWED 0x2u
#define QZ_MOVEFILE_WRITE_THROUGH 0x8u
LL_API int utf8_movefileex(const char *oldname, const char *newname, uint32_t flags) LL_NOEXCEPT;
/* CreateFile with a UTF-8 name: a handle, or (void *)-1 (raw). On POSIX the
 * handle is the descriptor (intptr_t)fd; GENERIC_READ/WRITE and the five
 * dispositions are understood; close it with qzclose((int)(intptr_t)h). */
#define QZ_GENERIC_READ 0x80000000u
#define QZ_GENERIC_WRITE 0x40000000u
#define QZ_CREATE_NEW 1u
#define QZ_CREATE_ALWAYS 2u
#define QZ_OPEN_EXISTING 3u
#define QZ_OPEN_ALWAYS 4u
#define QZ_TRUNCATE_EXISTING 5u
LL_API void *utf8_createfile(const char *path, uint32_t access, uint32_t share, void *security,
                             uint32_t disposition, uint32_t flags, void *template_file) LL_NOEXCEPT;
/* 0 when the name exists (a trailing backslash is ignored), else -1 with
 * errno as utf8_findfirst leaves it. */
LL_API int utf8_access(const char *path) LL_NOEXCEPT;
/* 0 or -1, errno as the runtime's stat sets it. */
LL_API int utf8_stat(const char *path, struct ll_stat64 *st) LL_NOEXCEPT;

/* ---- volumes ---- */
/* Volume label, serial, longest component, flags and file-system name of the
 * volume at root; nonzero on success (raw). Either buffer may be null. On
 * POSIX the label is empty, the serial the file system's id folded to 32 bits
 * and the file-system name the type from the mount table. */
LL_API int utf8_getvolumeinfo(const char *root, char *name, uint32_t namesize, uint32_t *serial,
                              uint32_t *maxcomp, uint32_t *flags, char *fsname, uint32_t fsnamesize) LL_NOEXCEPT;
/* The root of the volume that holds path ("C:\", or on POSIX the mount
 * directory with a trailing "/"); 0 or -1 (raw; errno 12 when memory is
 * short). */
LL_API int utf8_getvolumepathname(const char *path, char *out, uint32_t size) LL_NOEXCEPT;
/* Cluster geometry of the volume at root; counts above 32 bits are clipped.
 * Nonzero on success (raw; errno 12 when memory is short). */
LL_API int utf8_getdiskfreespace(const char *root, uint32_t *sectors_per_cluster, uint32_t *bytes_per_sector,
                                 uint32_t *free_clusters, uint32_t *total_clusters) LL_NOEXCEPT;
/* The target of a link or junction, or for a mapped drive root ("X:\") the
 * network name behind it; 0 or -1 (raw). On POSIX: the symbolic link's
 * target (readlink); a name that is not a link fails with EINVAL. */
LL_API int utf8_getpathtarget(const char *path, char *out, uint32_t size) LL_NOEXCEPT;
/* Volume mount points. The operations are found at run time; where the
 * platform lacks them each call fails with errno 2 and returns 0. On POSIX
 * utf8_getmntptvname gives the device mounted on a mount directory (from the
 * mount table), and the mount-point search is absent (0, errno 2). Search
 * handles: -1 on failure. */
LL_API int utf8_getmntptvname(const char *mountpoint, char *out, uint32_t size) LL_NOEXCEPT;
LL_API intptr_t utf8_findfirstvolmntpt(const char *volume, char *out, uint32_t size) LL_NOEXCEPT;
LL_API int utf8_findnextvolmntpt(intptr_t handle, char *out, uint32_t size) LL_NOEXCEPT;
LL_API int utf8_findvolmntptclose(intptr_t handle) LL_NOEXCEPT;

/* A copy of s in the ANSI code page for display (unconvertible characters
 * become '|'; bytes that are not UTF-8 are kept as they stand), in a
 * 6144-byte buffer of the calling thread that the next call on the thread
 * reuses. errno is preserved. */
LL_API const char *syscalls_utf8dec(const char *s) LL_NOEXCEPT;

LL_END_DECLS

#endif

/*
 * liblocal/sysinfo.h - the POSIX-shaped system names record and the host description.
 *
 * uname: the C library's name is not taken over. The library exports
 * ll_uname and this header maps uname (and struct utsname) to it, after the
 * system header that declares the original, so callers keep writing
 *     struct utsname u;  uname(&u);
 * The record has the same layout on every platform. On Windows: sysname
 * "Windows_NT", nodename the host name, release "major.minor" of the system
 * version, version its build number, machine the processor architecture of
 * the system ("x86_64", "i686", "aarch64", "arm").
 *
 * sysdesc: the host description record, below.
 */
#ifndef LIBLOCAL_SYSINFO_H
#define LIBLOCAL_SYSINFO_H

#include "export.h"

#if !defined(_WIN32)
#include <sys/utsname.h>
#endif

#define QZ_UTSNAME_LENGTH 65

struct ll_utsname {
  char sysname[QZ_UTSNAME_LENGTH];
  char nodename[QZ_UTSNAME_LENGTH];
  char release[QZ_UTSNAME_LENGTH];
  char version[QZ_UTSNAME_LENGTH];
  char machine[QZ_UTSNAME_LENGTH];
};

#undef uname
#undef utsname
#define utsname ll_utsname
#define uname ll_uname

LL_BEGIN_DECLS

/* Fills the record (every field terminated, longer names cut); 0, or -1 with
 * errno (EFAULT for a null record). */
LL_API int ll_uname(struct ll_utsname *u) LL_NOEXCEPT;

/*
 * The host description: what the product's programs tell each other about
 * the machine they run on. The record is built by the first call of sysdesc
 * in the process (concurrent first calls build it once) and is not changed
 * afterwards: it describes the host as it was then. It belongs to the
 * library and stays valid until the library leaves the process; callers
 * neither change nor free it. The fields are the same on every platform.
 */
#define QZ_SYSDESC_KIND_LENGTH 8
#define QZ_SYSDESC_OS_LENGTH 64

typedef struct qz_sysdesc {
  /* uname's names (empty when the system could not be asked) */
  char sysname[QZ_UTSNAME_LENGTH];
  char nodename[QZ_UTSNAME_LENGTH];
  char release[QZ_UTSNAME_LENGTH];
  char version[QZ_UTSNAME_LENGTH];
  char machine[QZ_UTSNAME_LENGTH];
  /* "server" for a server edition (class 2 of Win32OSVersion), else "desktop" */
  char kind[QZ_SYSDESC_KIND_LENGTH];
  /* the description name of this host (qz_host_os_name: "Linux",
   * "Windows NT Workstation on Intel", ...) */
  char os_name[QZ_SYSDESC_OS_LENGTH];
  int32_t os_class;   /* Win32OSVersion */
  int32_t processors; /* get_num_processors: -1 when the system reports none */
  /* The local file systems: the file-system table's local save sets, each
   * volume counted once (by its serial, on POSIX its device number), whose
   * size the free-space query could read. */
  uint64_t local_bytes; /* their total size in bytes */
  int32_t local_count;  /* how many were counted */
  int32_t spare;        /* always 0 */
} qz_sysdesc_t;

/* The host description of this process; never null. */
LL_API const qz_sysdesc_t *sysdesc(void) LL_NOEXCEPT;

LL_END_DECLS

#endif

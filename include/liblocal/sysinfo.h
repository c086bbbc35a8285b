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

LL_END_DECLS

#endif

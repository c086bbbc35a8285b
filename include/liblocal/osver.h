/*
 * liblocal/osver.h - operating-system class and version.
 *
 * Classes: 1 NT kind whose edition is unknown (or an old non-NT system),
 * 2 NT server edition, 3 NT workstation edition, 4 the Windows 9x kind (no
 * wide-character file calls). On a POSIX system the answer is 2 for a server
 * and 3 for a workstation, derived from the host (see docs/decisions.md).
 * Each answer is computed once and kept.
 */
#ifndef LIBLOCAL_OSVER_H
#define LIBLOCAL_OSVER_H

#include "export.h"

LL_BEGIN_DECLS

LL_API int Win32OSVersion(void) LL_NOEXCEPT;
LL_API int Win32OSMajorVersionNumber(void) LL_NOEXCEPT;
LL_API int Win32OSMinorVersionNumber(void) LL_NOEXCEPT;
LL_API int Win32OSPlatformId(void) LL_NOEXCEPT;

/* Tests on the host-description names that the product's programs exchange;
 * the comparisons are exact (case counts). */
LL_API int is_server_OS(const char *name) LL_NOEXCEPT;
LL_API int is_nt_OS(const char *name) LL_NOEXCEPT;
LL_API int is_cluster_type(const char *name, const char *type) LL_NOEXCEPT;
/* The description name of this host ("Windows NT Server on Intel", "Linux", ...). */
LL_API const char *qz_host_os_name(void) LL_NOEXCEPT;

/* Processors the system reports, or -1 when it reports none; errno is 0 after. */
LL_API int get_num_processors(void) LL_NOEXCEPT;

LL_END_DECLS

#endif

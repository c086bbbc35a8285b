/*
 * liblocal/appdir.h - installation directories and program location.
 *
 * Two places anchor a program's files: the application directory (the
 * product's top directory: logs, indexes, temporary files...) and the
 * installation directory (the parent of the directory the running program
 * was started from). Both are found once per process and kept; the getters
 * return paths owned by the library, or null while the parent is unknown
 * (a later call tries again).
 *
 * The application directory is found from the running executable: the
 * parent of its "bin" directory when it sits in one, else the nearest
 * ancestor of its directory named like the application (its own directory
 * is never compared), else the default: on Windows "<system drive>:\<app>",
 * on POSIX "/opt/<app>". On POSIX the executable's own name comes from the
 * system (/proc/self/exe) and paths use "/".
 */
#ifndef LIBLOCAL_APPDIR_H
#define LIBLOCAL_APPDIR_H

#include "export.h"

LL_BEGIN_DECLS

/* The application directory; appname is needed on the first call (library
 * initialisation passes the program's name), later calls may pass null. */
LL_API const char *find_appdir(const char *appname) LL_NOEXCEPT;
/* The program-location search alone (null when it finds nothing), the
 * default directory, and the system drive letter ("C"; "" on POSIX). */
LL_API const char *find_appdir_no_default_win32(const char *appname) LL_NOEXCEPT;
LL_API const char *default_appdir_win32(const char *appname) LL_NOEXCEPT;
LL_API const char *default_drive_win32(void) LL_NOEXCEPT;

/* The program name as given (a copy; null is ignored). */
LL_API void qz_set_argv0(const char *name) LL_NOEXCEPT;
LL_API const char *qz_get_argv0(void) LL_NOEXCEPT;
/* Stores argv0 and returns the installation directory (the parent of the
 * directory the program runs from); null for a null argv0. */
LL_API const char *qz_find_installdir(const char *argv0) LL_NOEXCEPT;
LL_API const char *qz_get_installdir(void) LL_NOEXCEPT;

/* Well-known directories: "bin" under the installation directory, the
 * others under the application directory, "sec" under "tmp". */
LL_API const char *qz_get_applogsdir(void) LL_NOEXCEPT;
LL_API const char *qz_get_bindir(void) LL_NOEXCEPT;
LL_API const char *qz_get_coresdir(void) LL_NOEXCEPT;
LL_API const char *qz_get_debugdir(void) LL_NOEXCEPT;
LL_API const char *qz_get_etcdir(void) LL_NOEXCEPT;
LL_API const char *qz_get_glsdir(void) LL_NOEXCEPT;
LL_API const char *qz_get_indexdir(void) LL_NOEXCEPT;
LL_API const char *qz_get_libdir(void) LL_NOEXCEPT;
LL_API const char *qz_get_logsdir(void) LL_NOEXCEPT;
LL_API const char *qz_get_mmdir(void) LL_NOEXCEPT;
LL_API const char *qz_get_moddir(void) LL_NOEXCEPT;
LL_API const char *qz_get_rapdir(void) LL_NOEXCEPT;
LL_API const char *qz_get_resdir(void) LL_NOEXCEPT;
LL_API const char *qz_get_tmpdir(void) LL_NOEXCEPT;
LL_API const char *qz_get_securedir(void) LL_NOEXCEPT;

/* Full name of the executable 'name' next to the running program, in buf
 * (size bytes): origin directory + name, canonical, with ".exe" added on
 * Windows unless a plain file of the given name exists. Returns buf when that
 * file is accessible, else name itself (never fails). */
LL_API const char *execpath(const char *name, char *buf, unsigned int size) LL_NOEXCEPT;

/* Windows helpers (POSIX answers: %NAME% expanded from the environment;
 * null; null; 0). Results are malloc'ed; free them. root is an HKEY. */
LL_API char *get_an_expanded_string_win32(const char *text) LL_NOEXCEPT;
LL_API void *retrieve_data_from_registry_win32(void *root, const char *subkey, const char *valuename,
                                               uint32_t *type_out, uint32_t *size_out) LL_NOEXCEPT;
LL_API char *find_path_of_service_from_service_manager_win32(const char *service) LL_NOEXCEPT;
/* A dotted IPv4 address stored as text under HKEY_LOCAL_MACHINE\subkey, in
 * network byte order; 0 when absent. */
LL_API uint32_t get_registry_ulong(const char *subkey, const char *valuename) LL_NOEXCEPT;

LL_END_DECLS

#endif

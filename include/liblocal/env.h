/*
 * liblocal/env.h - environment variables and tuned numbers.
 */
#ifndef LIBLOCAL_ENV_H
#define LIBLOCAL_ENV_H

#include "export.h"

LL_BEGIN_DECLS

/* The value of 'name' in UTF-8, or null when unset. A value that is not
 * plain ASCII comes back converted in a buffer of its own (never freed). */
LL_API char *qzgetenv(const char *name) LL_NOEXCEPT;
/* Sets "name=value" (UTF-8); the runtime's result, 0 for null, -1 when out of
 * memory. */
LL_API int qzputenv(const char *assignment) LL_NOEXCEPT;
/* The tuned value of a limit. 'tuning' is "NAME=DEFAULT,MIN:MAX"; the setting
 * (the variable NAME, else DEFAULT) is "%n" (n percent of value), "<n"
 * (at most n), ">n" (at least n), "=n" or "n" (n), or "D" (value unchanged);
 * the result is then kept within MIN and MAX ("*" or empty: no bound).
 * A malformed tuning string aborts the process. */
LL_API unsigned long getenv_ulong(const char *tuning, unsigned long value) LL_NOEXCEPT;

/* Environment blocks for a child process (mkenv 'form'):
 *   QZ_ENV_VECTOR  a null-terminated vector of "NAME=VALUE" texts (char **),
 *                  the form execve and the runtime's spawn calls take;
 *   QZ_ENV_BLOCK   the texts one after the other, each ended by a NUL, the
 *                  block ended by one more NUL (at least two NULs in all);
 *   QZ_ENV_WIDE    the same in 16-bit characters (qzwchar_t), the form
 *                  CreateProcessW takes with CREATE_UNICODE_ENVIRONMENT.
 * Every form is available on every platform. */
#define QZ_ENV_VECTOR 0
#define QZ_ENV_BLOCK 1
#define QZ_ENV_WIDE 2
/* Builds an environment for a child: the texts of 'set' (a null-terminated
 * vector of "NAME=VALUE", UTF-8; may be null) first, in their order, then
 * every variable of this process whose name none of them sets. Names compare
 * as the platform does (without regard to case on Windows); when 'set' names
 * a variable twice the first one counts. Texts are UTF-8 (the inherited ones
 * as the platform holds them on POSIX, converted from UTF-16 on Windows).
 * Returns one malloc'd allocation (free it with free) and, when size is not
 * null, its size in bytes; null with errno EINVAL for a text without "=" or
 * with an empty name, or for an unknown form, ENOMEM when out of memory. */
LL_API void *mkenv(const char *const *set, int form, size_t *size) LL_NOEXCEPT;

LL_END_DECLS

#endif

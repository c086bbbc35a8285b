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

LL_END_DECLS

#endif

/*
 * liblocal/options.h - option parsing.
 *
 * getopt reads single-letter options with the classic grammar, from state
 * kept per thread. A word "@name" names an option file whose words are read
 * as if they stood on the command line at that place (lines of at most 254
 * characters, words separated by blanks and tabs, no quoting, no comments).
 * getarg then hands out the operands, also from option files.
 *
 * The plain names getopt, optarg, optind, opterr and optopt are mapped to the
 * library's own (ll_getopt and the calling thread's variables), so the C
 * library's getopt is never replaced. Diagnostics are off (opterr 0) after
 * getopt_init and after library initialisation.
 *
 * Words taken from an option file stay valid until the next getopt or
 * getarg call of the thread.
 */
#ifndef LIBLOCAL_OPTIONS_H
#define LIBLOCAL_OPTIONS_H

#include "export.h"

#if !defined(_WIN32) || defined(__MINGW32__)
#  include <unistd.h>
#  include <getopt.h>
#endif

LL_BEGIN_DECLS

/* The calling thread's option state (opaque). */
typedef struct qz_optstate qz_optstate;

/* Resets the calling thread's state: opterr 0, optind 1, optopt 0, optarg
 * null, no option file and no pending word. */
LL_API qz_optstate *getopt_init(void) LL_NOEXCEPT;

/* The next option letter; '?' for an unknown letter or a missing argument;
 * -1 at the end of the options ("--" is skipped, "-" and operands are kept). */
#define getopt ll_getopt
LL_API int getopt(int argc, char *const argv[], const char *optstring) LL_NOEXCEPT;

/* The next operand after the options, or null when none is left. */
LL_API char *getarg(int argc, char *const argv[]) LL_NOEXCEPT;

/* Addresses of the calling thread's variables. */
LL_API int *_opterr(void) LL_NOEXCEPT;
LL_API int *_optind(void) LL_NOEXCEPT;
LL_API int *_optopt(void) LL_NOEXCEPT;
LL_API char **_optarg(void) LL_NOEXCEPT;

#if !defined(LL_SCAN_EXPORTS)
#  define opterr (*_opterr())
#  define optind (*_optind())
#  define optopt (*_optopt())
#  define optarg (*_optarg())
#endif

LL_END_DECLS

#endif

/*
 * liblocal/output.h - program name, diagnostic and user output, the library formatter.
 *
 * Every message line begins with the program name and ": " (after a time
 * stamp and a blank when time stamps are on). Texts are UTF-8; they are
 * converted to the console's code page where a person reads them (consoles,
 * and other descriptors while Mast_flag is 0 unless marked with utf8_fd) and
 * written unchanged where another program reads them.
 *
 * The library formatter behaves like the runtime's printf with these
 * additions: numbered arguments ("%2$s"), "*" widths and precisions, the
 * length modifiers h, l, L (and hh, ll, j, z, t, I64), and %s widths and
 * precisions counted in display columns of UTF-8 text, never cutting a
 * character. Formats whose numbered arguments are inconsistent are written
 * out literally, without reading any argument; %n writes nothing.
 */
#ifndef LIBLOCAL_OUTPUT_H
#define LIBLOCAL_OUTPUT_H

#include <stdarg.h>
#include <stdio.h>

#include "export.h"
#include "frame.h"

/* printf-style checking of the library formatter's callers (GNU semantics:
 * the formatter accepts %zu, %lld and numbered arguments on every platform). */
#if defined(__clang__)
#  define LL_FMT(f, a) __attribute__((format(printf, f, a)))
#elif defined(__GNUC__)
#  define LL_FMT(f, a) __attribute__((format(gnu_printf, f, a)))
#else
#  define LL_FMT(f, a)
#endif

LL_BEGIN_DECLS

/* ---- program name and origin ---- */

/* Names the program in every message line (at most 29 characters, the part
 * after the last backslash, ".exe" cut off, folded to lower case when it has
 * no lower-case letter). A name of 1560 bytes or more ends the process with
 * exit status 111. */
LL_API void setMyname(const char *name) LL_NOEXCEPT;
LL_API char *getMyname(void) LL_NOEXCEPT;
/* Directory of the running executable with a trailing separator. */
LL_API char *find_origin(const char *name) LL_NOEXCEPT;
/* Length of 'prefix' when it is a leading sequence of components of 'path'
 * (compared without regard to case), else 0. */
LL_API int preflen(const char *path, const char *prefix) LL_NOEXCEPT;

/* ---- prefixed messages ---- */

LL_API int printerr(const char *fmt, ...) LL_NOEXCEPT LL_FMT(1, 2);
LL_API int vprinterr(const char *fmt, va_list ap) LL_NOEXCEPT LL_FMT(1, 0);
LL_API int printinfo(const char *fmt, ...) LL_NOEXCEPT LL_FMT(1, 2);
LL_API int vprintinfo(const char *fmt, va_list ap) LL_NOEXCEPT LL_FMT(1, 0);

/* Debug traces: printed on standard error when Debug >= level; level 0
 * always prints, marked "Diagnostic: ". The C library's dprintf and vdprintf
 * are not replaced: the library's are ll_dprintf and ll_vdprintf. */
#define dprintf ll_dprintf
#define vdprintf ll_vdprintf
LL_API int dprintf(int level, const char *fmt, ...) LL_NOEXCEPT LL_FMT(2, 3);
LL_API int vdprintf(int level, const char *fmt, va_list ap) LL_NOEXCEPT LL_FMT(2, 0);
#if !defined(LL_SCAN_EXPORTS) && !defined(LL_DPRINTF_NO_INLINE)
/* A trace above the current level costs one comparison: neither the call
 * nor its arguments are evaluated. */
#  undef dprintf
#  define dprintf(level, ...) (Debug < (level) ? 0 : ll_dprintf((level), __VA_ARGS__))
#endif
/* As dprintf, and also to the debug file when one is open. */
LL_API int dfprintf(int level, const char *fmt, ...) LL_NOEXCEPT LL_FMT(2, 3);
LL_API int vdfprintf(int level, const char *fmt, va_list ap) LL_NOEXCEPT LL_FMT(2, 0);

/* The debug file: opened for appending; 0 on success, -1 on failure. */
LL_API int dfopen(const char *path) LL_NOEXCEPT;
LL_API int dfclose(void) LL_NOEXCEPT;
/* Non-zero: every message line starts with the local time and a blank. */
LL_API void print_timestamps(int flag) LL_NOEXCEPT;

/* ---- stream treatment ---- */

/* Mark a descriptor as carrying UTF-8 (written unchanged) or as read by a
 * person (converted); see the header comment. At most 10 marks. */
LL_API void utf8_fd(int fd) LL_NOEXCEPT;
LL_API void utf8_fp(FILE *stream) LL_NOEXCEPT;
LL_API void user_fd(int fd) LL_NOEXCEPT;
LL_API void user_fp(FILE *stream) LL_NOEXCEPT;
/* Raises Mast_flag when BSW_CATCH_CHILD_STDOUT is set (a parent program
 * reads our output), clears it otherwise; returns the variable's value. */
LL_API char *printby_utf8(void) LL_NOEXCEPT;

/* ---- formatted output ---- */

LL_API int qzprintf(const char *fmt, ...) LL_NOEXCEPT LL_FMT(1, 2);
LL_API int qzvprintf(const char *fmt, va_list ap) LL_NOEXCEPT LL_FMT(1, 0);
LL_API int qzfprintf(FILE *stream, const char *fmt, ...) LL_NOEXCEPT LL_FMT(2, 3);
LL_API int qzvfprintf(FILE *stream, const char *fmt, va_list ap) LL_NOEXCEPT LL_FMT(2, 0);
/* Into a caller's buffer without a bound; the length written. */
LL_API int qzsprintf(char *buf, const char *fmt, ...) LL_NOEXCEPT LL_FMT(2, 3);
LL_API int qzvsprintf(char *buf, const char *fmt, va_list ap) LL_NOEXCEPT LL_FMT(2, 0);
/* Into a caller's buffer of 'size' bytes (terminated when size > 0); the
 * length the whole text needs, or -1 for a null format. */
LL_API int qzsnprintf(char *buf, size_t size, const char *fmt, ...) LL_NOEXCEPT LL_FMT(3, 4);
LL_API int qzvsnprintf(char *buf, size_t size, const char *fmt, va_list ap) LL_NOEXCEPT LL_FMT(3, 0);
/* Into a buffer the library allocates (the format's length plus 12288 bytes;
 * a longer text is cut at a character boundary); the caller frees it. Null
 * when out of memory or the format is null. */
LL_API char *qzasprintf(const char *fmt, ...) LL_NOEXCEPT LL_FMT(1, 2);
LL_API char *qzvasprintf(const char *fmt, va_list ap) LL_NOEXCEPT LL_FMT(1, 0);

/* A line to standard output / a text to a stream (the latter in the ANSI
 * code page on converted streams). */
LL_API int qzputs(const char *s) LL_NOEXCEPT;
LL_API int qzfputs(const char *s, FILE *stream) LL_NOEXCEPT;
/* Line input converted to UTF-8. qzgets removes the newline. */
LL_API char *qzgets(char *buf) LL_NOEXCEPT;
LL_API char *qzfgets(char *buf, int n, FILE *stream) LL_NOEXCEPT;
LL_API char *qzfgets_utf8(char *buf, int n, FILE *stream) LL_NOEXCEPT;

/* The writer behind the formatted output. set_vfprintf installs a
 * replacement (installing the plain writer, the previous result of a first
 * call, clears it) and returns the previous one, or the plain writer. */
typedef int (*qz_vfprintf_fn)(FILE *stream, const char *fmt, va_list ap);
LL_API qz_vfprintf_fn set_vfprintf(qz_vfprintf_fn fn) LL_NOEXCEPT;
LL_API void unset_vfprintf(void) LL_NOEXCEPT;
/* Non-zero: standard output and error are written with the system's write
 * call instead of the runtime's streams. Returns the previous value. */
LL_API int UseWrite(int flag) LL_NOEXCEPT;

/* Display width of a UTF-8 text in terminal columns. */
LL_API int utf8_ttystrlen(const char *s) LL_NOEXCEPT;

LL_END_DECLS

#endif

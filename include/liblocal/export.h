/*
 * liblocal/export.h - linkage of the public interface.
 *
 * LL_API marks every exported function and variable. Inside the library it
 * exports (everything else is hidden); in a caller it imports.
 *
 * Names that the C library also defines (pipe, popen, kill, getopt, dprintf,
 * ...) are never exported under that name on a POSIX system: the library
 * exports them as ll_<name>, and the family header maps the plain name to it
 * with LL_RENAME, after including the system header that declares the
 * original. Callers keep writing the plain name.
 */
#ifndef LIBLOCAL_EXPORT_H
#define LIBLOCAL_EXPORT_H

#include <stddef.h>
#include <stdint.h>

#if defined(LL_SCAN_EXPORTS)
   /* the export check reads the preprocessed headers for this marker */
#  define LL_API __ll_export__
#elif defined(_WIN32)
#  if defined(LL_BUILDING_LIBRARY)
#    define LL_API __declspec(dllexport)
#  else
#    define LL_API __declspec(dllimport)
#  endif
#elif defined(__GNUC__)
#  define LL_API __attribute__((visibility("default")))
#else
#  define LL_API
#endif

#if defined(__cplusplus)
#  define LL_BEGIN_DECLS extern "C" {
#  define LL_END_DECLS }
#  define LL_NOEXCEPT noexcept
#else
#  define LL_BEGIN_DECLS
#  define LL_END_DECLS
#  define LL_NOEXCEPT
#endif

#if defined(__GNUC__)
#  define LL_PRINTF(f, a) __attribute__((format(printf, f, a)))
#else
#  define LL_PRINTF(f, a)
#endif

/* The library's 16-bit wide character: the platform's wchar_t on Windows,
 * a 16-bit unsigned integer elsewhere. */
#if defined(_WIN32)
typedef wchar_t qzwchar_t;
#else
typedef uint16_t qzwchar_t;
#endif

#endif

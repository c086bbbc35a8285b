/*
 * liblocal/memory.h - allocators that never fail, and the library's delay.
 *
 * xmalloc, xcalloc and xstrdup never return null: while an allocation fails
 * they call the failure handler (by default: wait 5000 ms) and try again.
 * Note: xmalloc sets errno to 22 before it allocates and leaves it so, even on
 * success; do not read errno after it.
 */
#ifndef LIBLOCAL_MEMORY_H
#define LIBLOCAL_MEMORY_H

#include "export.h"

LL_BEGIN_DECLS

typedef void (*qz_xmalloc_handler)(size_t size);
typedef int (*qz_peek_func)(void);

LL_API void *xmalloc(size_t size) LL_NOEXCEPT;
LL_API void *xcalloc(size_t count, size_t size) LL_NOEXCEPT;
LL_API char *xstrdup(const char *s) LL_NOEXCEPT;
/* Installs a handler (null restores the default); returns the one in force. */
LL_API qz_xmalloc_handler set_xmalloc_failed(qz_xmalloc_handler fn) LL_NOEXCEPT;

/* Waits 'ms' milliseconds in slices (0, 10, 100 or 500 ms by length), calling
 * the peek function between slices; returns the last tick count read, or 1
 * when the peek function ended the wait by returning 1. */
LL_API unsigned long delay(unsigned long ms) LL_NOEXCEPT;
LL_API void Set_Delay_PeekFunc(qz_peek_func fn) LL_NOEXCEPT;
/* 1: plain yielding between slices, no peek function. */
LL_API void Set_Delay_Type(int type) LL_NOEXCEPT;

LL_END_DECLS

#endif

// Helpers shared by the string, quoting, tag and catalog code.
#pragma once
#include <cstddef>

#include <liblocal/errrec.h>

namespace ll::text {

// Debug trace at 'level' (printed when Debug >= level).
void trace(int level, const char *fmt, ...) noexcept
#if defined(__GNUC__)
    __attribute__((format(printf, 2, 3)))
#endif
    ;

// Records a notice "out of memory" error (severity 1, number 12) with the
// library's catalog text 'number' of set 17 and returns the thread's record.
qzerror *record_no_memory(int number, const char *english) noexcept;

// Allocation for routines that report failure instead of waiting for memory.
// A test can make the next allocations fail (llt_text_fail_allocs).
void *try_alloc(size_t size) noexcept;
void *try_calloc(size_t count, size_t size) noexcept;

// Tag scanning: the length of the tag that starts at p (" [" ... "]"), 0
// when p does not start one.
size_t tag_length(const char *p) noexcept;
inline bool is_tag_char(char c) noexcept {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'W') || c == 'Z' || c == '-';
}

// qzstrcmp walking both texts through their tags from the start (msgtag.cpp).
int compare_tagged(const unsigned char *a, const unsigned char *b) noexcept;

// The end of qzstrcmp once a block scan has stopped at i: the texts agree
// before i and hold no "[" there, and at i they differ, end, or a holds "[".
// Only a tag that starts at i or whose bracket is at i can still matter.
inline int compare_from(const unsigned char *a, const unsigned char *b, size_t i) noexcept {
  if (a[i] == '[' || b[i] == '[' || (a[i] == ' ' && a[i + 1] == '[') || (b[i] == ' ' && b[i + 1] == '['))
    return compare_tagged(a, b);
  return static_cast<int>(a[i]) - static_cast<int>(b[i]);
}

// A qzstrcmp with wide vectors (msgtag_wide.cpp), or null when this build or
// processor cannot run it.
using StrcmpFn = int (*)(const char *a, const char *b) noexcept;
StrcmpFn wide_strcmp() noexcept;

inline bool is_space(char c) noexcept {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

}  // namespace ll::text

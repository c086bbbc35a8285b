// The library formatter: printf with numbered arguments, "*" widths, h/l/L,
// and %s widths and precisions counted in display columns of UTF-8 text.
#pragma once
#include <cstdarg>
#include <cstddef>

namespace ll {

// Capacity of an allocated result beyond the format's own length.
constexpr size_t kFormatSlack = 12288;

// Formats into buf of 'cap' bytes (nothing is written when cap is 0; else the
// text is terminated, cut at a character boundary when it does not fit).
// Returns the length of the whole text (which may exceed cap - 1).
size_t vformat(char *buf, size_t cap, const char *fmt, va_list ap) noexcept;
size_t format(char *buf, size_t cap, const char *fmt, ...) noexcept;

// Formats into a malloc'd buffer of strlen(fmt) + kFormatSlack bytes; null
// when it cannot be allocated or fmt is null. The caller frees it.
char *vformat_alloc(const char *fmt, va_list ap) noexcept;

// Display columns of the one UTF-8 sequence at s (at most 'avail' bytes are
// looked at; 'avail' >= 1); stores its length in bytes.
int sequence_columns(const unsigned char *s, size_t avail, size_t *bytes) noexcept;

// True when 'fmt' reads the same arguments (count and kinds) as 'reference':
// a translated format may then safely be used with the reference's arguments.
bool format_compatible(const char *fmt, const char *reference) noexcept;

// A catalog text of the library's own set, copied into buf (size bytes), used
// only when it is compatible with the English default (which is returned
// otherwise). The copy is the caller's: another thread's lookups cannot
// change it while it is used.
const char *catalog_format(int number, const char *english, char *buf, size_t size) noexcept;

namespace os {
// One floating-point or pointer conversion by the runtime's own formatter.
// 'conv' is the whole conversion ("%-12.3Lf"). Writes at most cap - 1 bytes
// and a terminator (cap > 0); returns the length the conversion needs, or -1.
int rt_format_double(char *out, size_t cap, const char *conv, double v) noexcept;
int rt_format_ldouble(char *out, size_t cap, const char *conv, long double v) noexcept;
int rt_format_pointer(char *out, size_t cap, const char *conv, const void *p) noexcept;
}  // namespace os

}  // namespace ll

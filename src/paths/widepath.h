// Path-aware conversion to 16-bit characters: what each back-end provides
// (paths/posix/widepath.cpp, paths/win32/widepath.cpp).
#pragma once
#include <cstddef>

#include <liblocal/export.h>

namespace ll::paths {
// The wide form of a UTF-8 path as the platform's wide file calls want it,
// into out (count characters with the terminator); its length, or -1 with
// errno (EINVAL: not convertible, ENAMETOOLONG: does not fit).
int wide_path(const char *path, qzwchar_t *out, size_t count) noexcept;
}  // namespace ll::paths

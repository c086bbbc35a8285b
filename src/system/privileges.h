// Process privileges: what each back-end provides (system/posix/privileges.cpp,
// system/win32/privileges.cpp).
#pragma once

namespace ll::priv {
// Enables each privilege of 'wanted' (QZ_PRIV_ bits) the process holds and
// returns the set now enabled; -1 when the process's rights cannot be read.
int enable(unsigned wanted) noexcept;
}  // namespace ll::priv

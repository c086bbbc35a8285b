// What mkenv needs from each back-end (frame/posix/mkenv.cpp,
// frame/win32/mkenv.cpp).
#pragma once
#include <string>
#include <vector>

namespace ll::os {
// The process's environment as "NAME=VALUE" texts in UTF-8 (POSIX: the bytes
// as they stand), in the platform's order.
std::vector<std::string> environment() noexcept;
// Whether variable names compare without regard to case.
bool env_names_fold_case() noexcept;
}  // namespace ll::os

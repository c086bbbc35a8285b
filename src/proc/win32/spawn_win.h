// Shared by the Windows process files.
#pragma once
#include <string>
#include <vector>

namespace ll::process::os {

// The environment block of a child: the given NAME=value strings (UTF-8)
// first, then this process's environment without the names they set; each
// string ends with a NUL, the block with one more.
std::wstring build_env_block(const std::vector<std::string> &extra);

}  // namespace ll::process::os

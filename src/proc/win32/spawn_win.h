// Shared by the Windows process files.
#pragma once
#include <string>
#include <vector>

#include "proc/process_os.h"

namespace ll::process::os {

// n wide characters (NULs included) in the ANSI code page.
std::string to_ansi(const wchar_t *w, size_t n);

// The environment block of a child: the given NAME=value strings (UTF-8)
// first, then this process's environment without the names they set; each
// string ends with a NUL, the block with one more.
std::wstring build_env_block(const std::vector<std::string> &extra);

// The Windows 9x class with a socket as standard output: the child writes
// into a pipe that a reader thread copies to the socket. 'line' and 'app'
// are ANSI. 0 with the node filled, or -1 with errno.
int relay_create(const SpawnReq &req, std::string line, const std::string &app, Child &node);

}  // namespace ll::process::os

// Runs the built llocal (found next to the test binary) as a process.
#pragma once
#include <string>
#include <vector>

#include "lltest.h"

namespace tooltest {

using Result = lltest::ChildResult;

// Runs "llocal args..." with standard input read from the file 'input' (the
// null device when empty), in the directory 'cwd' (this process's when
// empty).
Result run(const std::vector<std::string> &args, const std::string &input = "", const std::string &cwd = "");

// Path of the built llocal.
std::string tool_path();

using lltest::read_file;
bool file_exists(const std::string &path);
// The names in a folder.
std::vector<std::string> list_dir(const std::string &dir);

// Deterministic pseudo-random bytes.
std::string lcg_bytes(size_t n, unsigned seed);

// The committed fixtures.
std::string data_file(const std::string &name);

}  // namespace tooltest

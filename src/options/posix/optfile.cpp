// Option files on POSIX: the UTF-8 name is the file name.
#include "options/optfile.h"

namespace ll::opt {
std::FILE *open_file(const char *name_utf8) noexcept { return std::fopen(name_utf8, "r"); }
}  // namespace ll::opt

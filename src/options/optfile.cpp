// Option files are opened by their UTF-8 name through the file layer.
#include "options/optfile.h"

#include <liblocal/fileio.h>

namespace ll::opt {
std::FILE *open_file(const char *name_utf8) noexcept { return qzfopen(name_utf8, "r"); }
}  // namespace ll::opt

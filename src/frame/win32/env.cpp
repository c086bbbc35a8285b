// Setting environment variables on Windows: the runtime's _putenv.
#include <cstdlib>

#include "frame/output.h"

namespace ll::os {

int put_env(const char *s) noexcept { return _putenv(s); }

}  // namespace ll::os

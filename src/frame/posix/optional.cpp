// Optional entry points on POSIX: the table names Windows modules only, so
// every slot is absent and the features behind them take their POSIX paths.
#include "frame/optional.h"

namespace ll::optional {

void *lookup(const char *, const char *) noexcept { return nullptr; }

}  // namespace ll::optional

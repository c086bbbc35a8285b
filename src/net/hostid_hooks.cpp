// Host identity: the alias cache cleared at teardown (placeholder).
#include "frame/teardown_hooks.h"

namespace ll::hooks {
void hostname_cache_clear() noexcept {}
}  // namespace ll::hooks

// Host identity: the alias cache cleared at teardown.
#include "frame/teardown_hooks.h"

namespace ll::net {
void hostid_clear() noexcept;
}

namespace ll::hooks {
void hostname_cache_clear() noexcept { ll::net::hostid_clear(); }
}  // namespace ll::hooks

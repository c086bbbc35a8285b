// Cluster layer: whether this host is a cluster node (placeholder: not a cluster).
#include "frame/teardown_hooks.h"

namespace ll::hooks {
bool cluster_node() noexcept { return false; }
}  // namespace ll::hooks

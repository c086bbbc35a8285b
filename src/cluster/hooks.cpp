// Whether this host is a cluster node, for host identity (its alias cache
// keeps the local entry for a shorter time on a node). The answer never starts
// detection: it may be asked under the name-service lock, which detection
// itself takes. Until the type is known (start-up detects it) it is false.
#include "cluster/state.h"
#include "frame/teardown_hooks.h"

namespace ll::hooks {
bool cluster_node() noexcept {
  const int t = ll::cluster::type_now();
  return t == CLU_TYPE_NATIVE || t == CLU_TYPE_HX;
}
}  // namespace ll::hooks

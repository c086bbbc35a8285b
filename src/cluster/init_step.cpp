// Start-up step: the cluster layer detects its type with the host-identity
// comparison (samehost) as the default for cluster host comparisons. The
// program's name plays no part in detection.
#include "cluster/cluster_internal.h"
#include "frame/init_steps.h"

namespace ll::init {
void cluster_start(const char *) noexcept { clu_init(ll::cluster::startup_compare()); }
}  // namespace ll::init

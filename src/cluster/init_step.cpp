// Start-up step 8: the cluster layer (placeholder).
#include "frame/init_steps.h"

namespace ll::init {
void cluster_start(const char *) noexcept {}
}  // namespace ll::init

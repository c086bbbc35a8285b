// Services: teardown of the service handles (placeholder).
#include "proc/service_hooks.h"

namespace ll::svc {
void teardown() noexcept {}
}  // namespace ll::svc

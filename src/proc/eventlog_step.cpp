// Start-up step 5a: the event-log source, set up once the catalog is open (placeholder).
#include "frame/init_steps.h"

namespace ll::init {
void event_source() noexcept {}
}  // namespace ll::init

// Start-up step: the product's event source, set up once the catalog is open
// (its failures are reported at debug level 1 and never stop the program).
#include "frame/init_steps.h"
#include "proc/eventlog.h"
#include <liblocal/eventlog.h>

namespace ll::init {
void event_source() noexcept { (void)event_source_setup(ll::evlog::kProductKey); }
}  // namespace ll::init

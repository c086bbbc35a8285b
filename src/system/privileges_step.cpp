// Start-up step 10: process privileges (placeholder).
#include "frame/init_steps.h"

namespace ll::init {
void set_privileges() noexcept {}
}  // namespace ll::init

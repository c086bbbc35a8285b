// Start-up step 10: the process privileges.
#include <liblocal/security.h>

#include "frame/init_steps.h"

namespace ll::init {
void set_privileges() noexcept { SetPrivileges(); }
}  // namespace ll::init

// Initialisation steps whose family has not taken them over yet.
#include "frame/init_steps.h"

#include <string>

#include "frame/os.h"

namespace ll::init {
void cluster_start(const char *) noexcept {}
void optional_entry_points() noexcept {}
void set_privileges() noexcept {}
}  // namespace ll::init

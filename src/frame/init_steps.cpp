// Initialisation steps whose family has not taken them over yet.
#include "frame/init_steps.h"

namespace ll::init {
void optional_entry_points() noexcept {}
}  // namespace ll::init

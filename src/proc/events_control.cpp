// The debug control text, as the debug-file handler applies it: the same
// reading as at start-up.
#include "frame/debugctl.h"
#include "proc/events.h"

namespace ll::ev {

bool parse_control(const char *p, int *out) noexcept { return ll::parse_debug_control(p, out); }

}  // namespace ll::ev

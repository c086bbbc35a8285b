// The frame's debug trace goes through the output layer's dprintf.
#include <liblocal/frame.h>
#include <liblocal/output.h>

namespace ll {
void frame_trace(int level, const char *text) noexcept { dprintf(level, "%s", text); }
}  // namespace ll

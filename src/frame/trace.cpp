// Minimal debug trace for the frame until the output family provides dprintf.
#include <cstdio>

#include <liblocal/frame.h>

namespace ll {
void frame_trace(int level, const char *text) noexcept {
  if (Debug < level) return;
  if (level == 0) std::fputs("Diagnostic: ", stderr);
  std::fputs(text, stderr);
}
}  // namespace ll

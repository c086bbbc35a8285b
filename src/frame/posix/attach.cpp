// Library attach and detach on an ELF system: constructor and destructor.
#include "frame/areas.h"

namespace {
__attribute__((constructor)) void ll_attach() { ll::frame_attach(); }
__attribute__((destructor)) void ll_detach() { ll::frame_detach(); }
}  // namespace

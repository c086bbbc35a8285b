// The names of a resolver answer (struct hostent of Windows Sockets).
#include "frame/win32/win.h"

#include "cluster/cluster_internal.h"

namespace ll::cluster {
bool host_names(const void *answer, Resolved *out) noexcept {
  return names_of(static_cast<const hostent *>(answer), out);
}
}  // namespace ll::cluster

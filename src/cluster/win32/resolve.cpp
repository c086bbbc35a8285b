// The names of a resolver answer (struct hostent of Windows Sockets).
#include "frame/win32/win.h"

#include "cluster/cluster_internal.h"

namespace ll::cluster {
bool host_names(const void *answer, Resolved *out) noexcept {
  const auto *h = static_cast<const hostent *>(answer);
  if (!h || !h->h_name) return false;
  out->official = h->h_name;
  out->aliases.clear();
  for (char **a = h->h_aliases; a && *a && out->aliases.size() < 256; ++a) out->aliases.emplace_back(*a);
  return true;
}
}  // namespace ll::cluster

// Names on POSIX systems: case matters in file names; the map script is an
// executable "hxmap" (any interpreter through its "#!" line).
#include "cluster/cluster_internal.h"

namespace ll::cluster {
const bool kFoldNames = false;
const char kDirSep = '/';
const char kScriptName[] = "hxmap";
}  // namespace ll::cluster

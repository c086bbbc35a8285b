// Names on Windows: file names compare without regard to case; the map script
// is a batch file run by the command interpreter.
#include "cluster/cluster_internal.h"

namespace ll::cluster {
const bool kFoldNames = true;
const char kDirSep = '\\';
const char kScriptName[] = "hxmap.bat";
}  // namespace ll::cluster

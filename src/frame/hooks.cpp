// Every attach and teardown hook of frame/teardown_hooks.h is defined by the
// family that owns it: process events (proc/events_hooks.cpp), the event log
// and libraries loaded by name (proc/eventlog_hooks.cpp), host identity
// (net/hostid_hooks.cpp) and the cluster layer (cluster/hooks.cpp).
#include "frame/teardown_hooks.h"

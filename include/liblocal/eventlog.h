/*
 * liblocal/eventlog.h - the system event log and optionally loaded libraries.
 */
#ifndef LIBLOCAL_EVENTLOG_H
#define LIBLOCAL_EVENTLOG_H

#include "export.h"

LL_BEGIN_DECLS

LL_END_DECLS

#endif

/*
 * liblocal/process.h - spawning, waiting for and signalling processes; pipes and command streams.
 */
#ifndef LIBLOCAL_PROCESS_H
#define LIBLOCAL_PROCESS_H

#include "export.h"

LL_BEGIN_DECLS

LL_END_DECLS

#endif

/*
 * liblocal/sysinfo.h - the POSIX-shaped system names record and the host description.
 */
#ifndef LIBLOCAL_SYSINFO_H
#define LIBLOCAL_SYSINFO_H

#include "export.h"

LL_BEGIN_DECLS

LL_END_DECLS

#endif

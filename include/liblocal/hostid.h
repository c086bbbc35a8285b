/*
 * liblocal/hostid.h - host identity: own names and addresses, the alias cache, resolver calls.
 */
#ifndef LIBLOCAL_HOSTID_H
#define LIBLOCAL_HOSTID_H

#include "export.h"

LL_BEGIN_DECLS

LL_END_DECLS

#endif

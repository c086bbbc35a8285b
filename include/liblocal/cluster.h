/*
 * liblocal/cluster.h - cluster type, virtual hosts and the owners of paths.
 */
#ifndef LIBLOCAL_CLUSTER_H
#define LIBLOCAL_CLUSTER_H

#include "export.h"

LL_BEGIN_DECLS

LL_END_DECLS

#endif

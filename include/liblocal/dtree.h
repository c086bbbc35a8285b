/*
 * liblocal/dtree.h - directory-tree walker.
 */
#ifndef LIBLOCAL_DTREE_H
#define LIBLOCAL_DTREE_H

#include "export.h"

LL_BEGIN_DECLS

LL_END_DECLS

#endif

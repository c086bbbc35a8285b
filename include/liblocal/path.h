/*
 * liblocal/path.h - path syntax and canonicalisation.
 */
#ifndef LIBLOCAL_PATH_H
#define LIBLOCAL_PATH_H

#include "export.h"

LL_BEGIN_DECLS

LL_END_DECLS

#endif

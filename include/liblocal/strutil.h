/*
 * liblocal/strutil.h - string utilities.
 */
#ifndef LIBLOCAL_STRUTIL_H
#define LIBLOCAL_STRUTIL_H

#include "export.h"

LL_BEGIN_DECLS

LL_END_DECLS

#endif

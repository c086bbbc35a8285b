/*
 * liblocal/getdate.h - date expressions.
 */
#ifndef LIBLOCAL_GETDATE_H
#define LIBLOCAL_GETDATE_H

#include "export.h"

LL_BEGIN_DECLS

LL_END_DECLS

#endif

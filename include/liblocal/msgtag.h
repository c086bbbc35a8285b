/*
 * liblocal/msgtag.h - message identifiers and suffixes.
 */
#ifndef LIBLOCAL_MSGTAG_H
#define LIBLOCAL_MSGTAG_H

#include "export.h"

LL_BEGIN_DECLS

LL_END_DECLS

#endif

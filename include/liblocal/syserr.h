/*
 * liblocal/syserr.h - the error-number space and its texts.
 */
#ifndef LIBLOCAL_SYSERR_H
#define LIBLOCAL_SYSERR_H

#include "export.h"

LL_BEGIN_DECLS

LL_END_DECLS

#endif

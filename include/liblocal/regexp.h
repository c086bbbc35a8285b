/*
 * liblocal/regexp.h - basic regular expressions.
 */
#ifndef LIBLOCAL_REGEXP_H
#define LIBLOCAL_REGEXP_H

#include "export.h"

LL_BEGIN_DECLS

LL_END_DECLS

#endif

/*
 * liblocal/options.h - option parsing.
 */
#ifndef LIBLOCAL_OPTIONS_H
#define LIBLOCAL_OPTIONS_H

#include "export.h"

LL_BEGIN_DECLS

LL_END_DECLS

#endif

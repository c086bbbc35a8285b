/*
 * liblocal/env.h - environment variables and tuned numbers.
 */
#ifndef LIBLOCAL_ENV_H
#define LIBLOCAL_ENV_H

#include "export.h"

LL_BEGIN_DECLS

LL_END_DECLS

#endif

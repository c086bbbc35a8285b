/*
 * liblocal/output.h - program name, diagnostic and user output, the library formatter.
 */
#ifndef LIBLOCAL_OUTPUT_H
#define LIBLOCAL_OUTPUT_H

#include "export.h"

LL_BEGIN_DECLS

LL_END_DECLS

#endif

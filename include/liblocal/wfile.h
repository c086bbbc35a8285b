/*
 * liblocal/wfile.h - UTF-8 file-system calls.
 */
#ifndef LIBLOCAL_WFILE_H
#define LIBLOCAL_WFILE_H

#include "export.h"

LL_BEGIN_DECLS

LL_END_DECLS

#endif

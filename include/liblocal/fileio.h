/*
 * liblocal/fileio.h - the POSIX file layer.
 */
#ifndef LIBLOCAL_FILEIO_H
#define LIBLOCAL_FILEIO_H

#include "export.h"

LL_BEGIN_DECLS

LL_END_DECLS

#endif

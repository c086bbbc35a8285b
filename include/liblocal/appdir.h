/*
 * liblocal/appdir.h - installation directories and program location.
 */
#ifndef LIBLOCAL_APPDIR_H
#define LIBLOCAL_APPDIR_H

#include "export.h"

LL_BEGIN_DECLS

LL_END_DECLS

#endif

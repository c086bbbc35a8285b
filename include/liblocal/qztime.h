/*
 * liblocal/qztime.h - 64-bit time values and time formats.
 */
#ifndef LIBLOCAL_QZTIME_H
#define LIBLOCAL_QZTIME_H

#include "export.h"

LL_BEGIN_DECLS

/* The DOS epoch as a directory-listing date: " 1-01-80 12:00a". */
LL_API extern const char DOS_Epoch[];

LL_END_DECLS

#endif

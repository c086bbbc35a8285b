/*
 * liblocal/bitmap.h - growable bitmaps.
 */
#ifndef LIBLOCAL_BITMAP_H
#define LIBLOCAL_BITMAP_H

#include "export.h"

LL_BEGIN_DECLS

LL_END_DECLS

#endif

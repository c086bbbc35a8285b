/*
 * liblocal/codec.h - block compressor and LZW decoder.
 */
#ifndef LIBLOCAL_CODEC_H
#define LIBLOCAL_CODEC_H

#include "export.h"

LL_BEGIN_DECLS

LL_END_DECLS

#endif

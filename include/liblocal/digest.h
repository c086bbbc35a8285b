/*
 * liblocal/digest.h - POSIX cksum CRC and SHA-1.
 */
#ifndef LIBLOCAL_DIGEST_H
#define LIBLOCAL_DIGEST_H

#include "export.h"

LL_BEGIN_DECLS

LL_END_DECLS

#endif

/*
 * liblocal/keyslot.h - the key-slot table.
 */
#ifndef LIBLOCAL_KEYSLOT_H
#define LIBLOCAL_KEYSLOT_H

#include "export.h"

LL_BEGIN_DECLS

LL_END_DECLS

#endif

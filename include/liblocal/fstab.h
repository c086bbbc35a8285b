/*
 * liblocal/fstab.h - the table of mounted file systems and local save sets.
 */
#ifndef LIBLOCAL_FSTAB_H
#define LIBLOCAL_FSTAB_H

#include "export.h"

LL_BEGIN_DECLS

LL_END_DECLS

#endif

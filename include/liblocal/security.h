/*
 * liblocal/security.h - accounts, security identifiers and descriptors, privileges.
 */
#ifndef LIBLOCAL_SECURITY_H
#define LIBLOCAL_SECURITY_H

#include "export.h"

LL_BEGIN_DECLS

LL_END_DECLS

#endif

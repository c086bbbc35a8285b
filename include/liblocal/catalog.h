/*
 * liblocal/catalog.h - message catalogs and localisation.
 */
#ifndef LIBLOCAL_CATALOG_H
#define LIBLOCAL_CATALOG_H

#include "export.h"

LL_BEGIN_DECLS

LL_END_DECLS

#endif

/*
 * liblocal/catalog.h - message catalogs and localisation.
 */
#ifndef LIBLOCAL_CATALOG_H
#define LIBLOCAL_CATALOG_H

#include "export.h"

LL_BEGIN_DECLS

/* The text of message (set, number) in the catalog 'handle', or the English
 * default. The result lives in a process-wide ring of 20 buffers: copy it
 * before 19 more lookups. */
LL_API char *qzcatgets(int handle, int set, int number, const char *def) LL_NOEXCEPT;

LL_END_DECLS

#endif

/*
 * liblocal/list.h - sorted intrusive lists and sorted search.
 */
#ifndef LIBLOCAL_LIST_H
#define LIBLOCAL_LIST_H

#include "export.h"

LL_BEGIN_DECLS

LL_END_DECLS

#endif

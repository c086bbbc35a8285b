/*
 * liblocal/errrec.h - error records: typed codes, per-thread current record, printing.
 */
#ifndef LIBLOCAL_ERRREC_H
#define LIBLOCAL_ERRREC_H

#include "export.h"

LL_BEGIN_DECLS

LL_END_DECLS

#endif

/*
 * liblocal/quote.h - quoting and tokenising of command lines.
 */
#ifndef LIBLOCAL_QUOTE_H
#define LIBLOCAL_QUOTE_H

#include "export.h"

LL_BEGIN_DECLS

LL_END_DECLS

#endif

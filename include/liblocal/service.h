/*
 * liblocal/service.h - services and process events.
 */
#ifndef LIBLOCAL_SERVICE_H
#define LIBLOCAL_SERVICE_H

#include "export.h"

LL_BEGIN_DECLS

LL_END_DECLS

#endif

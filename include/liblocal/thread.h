/*
 * liblocal/thread.h - threads, mutexes and condition variables.
 */
#ifndef LIBLOCAL_THREAD_H
#define LIBLOCAL_THREAD_H

#include "export.h"

LL_BEGIN_DECLS

LL_END_DECLS

#endif

/*
 * liblocal/shmem.h - named shared memory with its lock word.
 */
#ifndef LIBLOCAL_SHMEM_H
#define LIBLOCAL_SHMEM_H

#include "export.h"

LL_BEGIN_DECLS

LL_END_DECLS

#endif

/*
 * liblocal/socket.h - socket wrappers with the library's error numbers,
 * descriptor sets, gathered I/O and process-wide cancellation.
 *
 * The platform's socket headers are not included: callers may use either
 * Winsock header on Windows, or the POSIX ones. A socket value has the
 * platform's width (SOCKET on Windows, int on POSIX).
 */
#ifndef LIBLOCAL_SOCKET_H
#define LIBLOCAL_SOCKET_H

#include "export.h"

LL_BEGIN_DECLS

#ifdef _WIN32
typedef uintptr_t qz_socket_t; /* SOCKET */
#else
typedef int qz_socket_t;
#endif

#define QZ_FD_SETSIZE 1024
/* Descriptor set: a 32-bit count, then the sockets in insertion order, no gaps. */
typedef struct qz_fd_set {
  int32_t fd_count;
  qz_socket_t fd_array[QZ_FD_SETSIZE];
} qz_fd_set;

LL_END_DECLS

#endif

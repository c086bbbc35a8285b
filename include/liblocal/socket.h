/*
 * liblocal/socket.h - socket wrappers with the library's error numbers,
 * descriptor sets, gathered I/O and process-wide cancellation.
 *
 * The platform's socket headers are not included: callers may use either
 * Winsock header on Windows, or the POSIX ones. A socket value has the
 * platform's width (SOCKET on Windows, int on POSIX).
 *
 * Every wrapper returns what the socket call of the same name returns; on
 * failure it returns -1 (QZ_INVALID_SOCKET, or null) with errno set to the
 * library's number for the socket error: 4 (EINTR) for an interrupted or
 * cancelled call, 135 for "would block" and "no buffer space", 161 for a
 * refused connection, 135..171 for the other socket errors (see syserr.h).
 * Both platforms report the same number for the same event.
 *
 * Cancellation: qz_socancel() makes every qzaccept, qzconnect, qz_select and
 * qzsoclose that is blocked in any thread of the process fail with EINTR. A
 * call that starts after qz_socancel() returned is not affected by it.
 *
 * readv, writev, getrpcbyname and getrpcbynumber are exported as ll_<name>;
 * this header maps the plain names to them.
 */
#ifndef LIBLOCAL_SOCKET_H
#define LIBLOCAL_SOCKET_H

#include "export.h"

#if !defined(_WIN32)
#include <sys/uio.h>   /* struct iovec */
#include <rpc/netdb.h> /* struct rpcent */
#endif

LL_BEGIN_DECLS

#ifdef _WIN32
typedef uintptr_t qz_socket_t; /* SOCKET */
typedef int qz_socklen_t;
#define QZ_INVALID_SOCKET ((qz_socket_t)~(uintptr_t)0)
#else
typedef int qz_socket_t;
typedef unsigned int qz_socklen_t; /* socklen_t */
#define QZ_INVALID_SOCKET (-1)
#endif

#define QZ_FD_SETSIZE 1024
/* Descriptor set: a 32-bit count, then the sockets in insertion order, no gaps. */
typedef struct qz_fd_set {
  int32_t fd_count;
  qz_socket_t fd_array[QZ_FD_SETSIZE];
} qz_fd_set;

struct sockaddr;
struct timeval;
struct protoent;

#ifdef _WIN32
/* The POSIX I/O vector and RPC entry, which Windows lacks. */
struct iovec {
  void *iov_base;
  size_t iov_len;
};
struct rpcent {
  char *r_name;
  char **r_aliases;
  int r_number;
};
#endif

#undef readv
#undef writev
#undef getrpcbyname
#undef getrpcbynumber
#define readv ll_readv
#define writev ll_writev
#define getrpcbyname ll_getrpcbyname
#define getrpcbynumber ll_getrpcbynumber

/* ---- start-up ---- */
/* Loads the socket layer once per process (on Windows, the two WS2_32 entry
 * points for sendv/recvv, when present). Always 1. */
LL_API int Tcp_Is_Loaded(void) LL_NOEXCEPT;

/* ---- cancellation ---- */
/* Raises the process-wide cancel generation: every blocking qzaccept,
 * qzconnect, qz_select and qzsoclose in the process fails with EINTR. */
LL_API void qz_socancel(void) LL_NOEXCEPT;
/* The current cancel generation (raised by one per qz_socancel). */
LL_API uint32_t qz_socancel_generation(void) LL_NOEXCEPT;

/* ---- wrappers ---- */
/* The new socket is not inherited by child processes. */
LL_API qz_socket_t qzsocket(int af, int type, int protocol) LL_NOEXCEPT;
/* Cancellable when the socket is blocking; the accepted socket is not
 * inherited and is blocking. */
LL_API qz_socket_t qzaccept(qz_socket_t s, struct sockaddr *addr, qz_socklen_t *addrlen) LL_NOEXCEPT;
/* Cancellable when the socket is blocking. On a non-blocking socket a
 * connection in progress fails with 135. */
LL_API int qzconnect(qz_socket_t s, const struct sockaddr *name, qz_socklen_t namelen) LL_NOEXCEPT;
/* select over the library's descriptor sets (any socket value, 1024 per
 * set); nfds is ignored. Cancellable. A null timeout waits without limit. */
LL_API int qz_select(int nfds, qz_fd_set *readfds, qz_fd_set *writefds, qz_fd_set *exceptfds,
                     struct timeval *timeout) LL_NOEXCEPT;
LL_API int qzbind(qz_socket_t s, const struct sockaddr *name, qz_socklen_t namelen) LL_NOEXCEPT;
LL_API int qzlisten(qz_socket_t s, int backlog) LL_NOEXCEPT;
LL_API int qzgetsockopt(qz_socket_t s, int level, int optname, char *optval, qz_socklen_t *optlen) LL_NOEXCEPT;
/* The value is read as one 32-bit word (optlen 1..4) and a copy is passed;
 * a longer option fails with EINVAL and the socket is left as it is. Send and
 * receive buffer sizes below 65536 are raised to 65536. */
LL_API int qzsetsockopt(qz_socket_t s, int level, int optname, const char *optval, int optlen) LL_NOEXCEPT;
LL_API int qzgetpeername(qz_socket_t s, struct sockaddr *name, qz_socklen_t *namelen) LL_NOEXCEPT;
LL_API int qzgetsockname(qz_socket_t s, struct sockaddr *name, qz_socklen_t *namelen) LL_NOEXCEPT;
LL_API struct protoent *qzgetprotobyname(const char *name) LL_NOEXCEPT;
/* ioctlsocket: FIONBIO, FIONREAD and SIOCATMARK with an unsigned long
 * argument; any other command fails with EINVAL and *argp is left as it is. */
LL_API int qzsoioctl(qz_socket_t s, long cmd, unsigned long *argp) LL_NOEXCEPT;
LL_API int qzrecv(qz_socket_t s, char *buf, int len, int flags) LL_NOEXCEPT;
LL_API int qzrecvfrom(qz_socket_t s, char *buf, int len, int flags, struct sockaddr *from,
                      qz_socklen_t *fromlen) LL_NOEXCEPT;
/* Sends at most QZ_SEND_MAX bytes; the caller loops on the count returned. */
#define QZ_SEND_MAX 8760
LL_API int qzsend(qz_socket_t s, const char *buf, int len, int flags) LL_NOEXCEPT;
LL_API int qzsendto(qz_socket_t s, const char *buf, int len, int flags, const struct sockaddr *to,
                    qz_socklen_t tolen) LL_NOEXCEPT;
LL_API int qzshutdown(qz_socket_t s, int how) LL_NOEXCEPT;
/* Non-blocking mode off / on: 1 on success, 0 on failure. */
LL_API int qzsoblock(qz_socket_t s) LL_NOEXCEPT;
LL_API int qzsononblock(qz_socket_t s) LL_NOEXCEPT;
/* Close; retried while the system answers "would block". Cancellable. */
LL_API int qzsoclose(qz_socket_t s) LL_NOEXCEPT;
/* Graceful close: shut the sending side, discard what the peer still sends
 * (up to 30 seconds), close. Always 0. */
LL_API int qzsocloselinger(qz_socket_t s) LL_NOEXCEPT;
/* The host name, cached per process; at most len bytes are copied, with no
 * terminator when the name fills the buffer. 0, or -1 with errno. */
LL_API int qzgethostname(char *buf, int len) LL_NOEXCEPT;

/* ---- gathered I/O ---- */
/* Two elements go out (in) in one call, capped at QZ_SEND_MAX bytes in all
 * for sendv; any other count moves the first element only. A count <= 0 or
 * a null vector fails with EINVAL. */
LL_API int sendv(qz_socket_t s, const struct iovec *vec, int count) LL_NOEXCEPT;
LL_API int recvv(qz_socket_t s, struct iovec *vec, int count) LL_NOEXCEPT;
/* write / read of the first element only, on a runtime descriptor. */
LL_API int ll_writev(int fd, const struct iovec *vec, int count) LL_NOEXCEPT;
LL_API int ll_readv(int fd, const struct iovec *vec, int count) LL_NOEXCEPT;

/* ---- the product's RPC services ---- */
/* By name (ignoring case) or by program number; null when absent. */
LL_API struct rpcent *ll_getrpcbyname(const char *name) LL_NOEXCEPT;
LL_API struct rpcent *ll_getrpcbynumber(int number) LL_NOEXCEPT;

/* ---- descriptor sets ---- */
LL_API void QZ_FD_ZERO(qz_fd_set *set) LL_NOEXCEPT;
/* Appends s unless present; a full set (1024) prints a warning and is left
 * as it is. */
LL_API void QZ_FD_SET(qz_socket_t s, qz_fd_set *set) LL_NOEXCEPT;
/* Removes s, moving the later entries down. */
LL_API void QZ_FD_CLR(qz_socket_t s, qz_fd_set *set) LL_NOEXCEPT;
LL_API int QZ_FD_ISSET(qz_socket_t s, const qz_fd_set *set) LL_NOEXCEPT;

LL_END_DECLS

#endif

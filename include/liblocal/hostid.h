/*
 * liblocal/hostid.h - host identity: own names and addresses, the alias cache, resolver calls.
 *
 * A host has many names (short, fully qualified, aliases, one per interface
 * address, "localhost"). The library keeps a process-wide cache of the alias
 * sets it has learnt (30 minutes; 30 seconds for this machine's own names on
 * a cluster node) and a list of names that did not resolve (5 minutes), so
 * that repeated questions do not go to the name service. Names are compared
 * without regard to case.
 */
#ifndef LIBLOCAL_HOSTID_H
#define LIBLOCAL_HOSTID_H

#include "export.h"

LL_BEGIN_DECLS

struct hostent;
struct sockaddr;

/* 1 when the two names denote the same host (null: this machine). */
LL_API int samehost(const char *a, const char *b) LL_NOEXCEPT;
/* 1 when the name is this machine (null included) or one of its local
 * virtual hosts. */
LL_API int is_myname(const char *name) LL_NOEXCEPT;
/* A new copy (free it) of the host's primary name (null: this machine), or
 * null when the name does not resolve. */
LL_API char *get_primaryhostname(const char *name) LL_NOEXCEPT;
/* 1 when the name resolves. */
LL_API int is_validhostname(const char *name) LL_NOEXCEPT;
/* This machine's official name in lower case ("localhost" when the system
 * gives none); static storage, computed once. */
LL_API char *getlocalhost(void) LL_NOEXCEPT;

/* This machine's IPv4 addresses, from the interfaces: *list receives an
 * array of 16-byte IPv4 socket addresses (family 2, address at byte 4) kept
 * for the life of the process. Returns their number, 0 when none can be
 * found, -1 when memory runs short. */
LL_API int get_myaddrs(struct sockaddr **list) LL_NOEXCEPT;
/* 1 when the address (family 2: 4 bytes in network order) is this machine's. */
LL_API int is_myaddr(int family, const void *addr, int length) LL_NOEXCEPT;
/* Fills family and address of the address the host name resolves to;
 * nothing is written when that fails. */
LL_API void _qzmo_get_myaddress(struct sockaddr *out) LL_NOEXCEPT;
LL_API void __qzmo_get_myaddress(struct sockaddr *out) LL_NOEXCEPT;

/* The resolver calls, serialised by the library's name-service lock. */
LL_API struct hostent *qzmo_gethostbyname(const char *name) LL_NOEXCEPT;
LL_API struct hostent *qzmo_gethostbyaddr(const char *addr, int len, int type) LL_NOEXCEPT;
/* The resolver calls with the answer copied to storage of the calling
 * thread (valid until its next call); null with errno set on failure (a name
 * that is not found: 1101, try again: 1102, no recovery: 1103, no address:
 * 1104, on every platform). */
LL_API struct hostent *qzgethostbyname(const char *name) LL_NOEXCEPT;
LL_API struct hostent *qzgethostbyaddr(const char *addr, int len, int type) LL_NOEXCEPT;

LL_END_DECLS

#endif

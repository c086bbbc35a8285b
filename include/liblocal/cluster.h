/*
 * liblocal/cluster.h - cluster type, virtual hosts and the owners of paths.
 *
 * A host may be a node of a cluster: either of the operating system's own
 * cluster service (CLU_TYPE_NATIVE, Windows only) or of a cluster that
 * describes itself through the map script "hxmap.bat" (POSIX: "hxmap") in the
 * installation's binary directory (CLU_TYPE_HX). The type is detected once
 * per process, on the first call of any function here (or by _qzinit); every
 * answer is computed once and kept for the life of the process. Nothing here
 * fails visibly: a failure makes the cluster count as absent or the answer
 * false, and is reported only in debug output (mostly at level 7).
 */
#ifndef LIBLOCAL_CLUSTER_H
#define LIBLOCAL_CLUSTER_H

#include "export.h"

LL_BEGIN_DECLS

#define CLU_TYPE_UNKNOWN (-99) /* not yet determined */
#define CLU_TYPE_NONE 0        /* no cluster (also when both kinds are found) */
#define CLU_TYPE_NATIVE 1      /* the operating system's cluster service */
#define CLU_TYPE_HX 2          /* described by the map script */

/* Host comparison: non-zero when the two names denote the same host. */
typedef int (*clu_hostcmp_fn)(const char *a, const char *b);

/* ---- cluster type and virtual hosts ---- */

/* Keeps cmp (may be null) as the default comparison of every cluster host
 * comparison and determines the cluster type once per process; a later call
 * only replaces the comparison. Returns the type. */
LL_API int clu_init(clu_hostcmp_fn cmp) LL_NOEXCEPT;
/* The cluster type (CLU_TYPE_*), determined first if needed. */
LL_API int clu_get_type(void) LL_NOEXCEPT;
/* Determines the type if needed; returns 0. */
LL_API int clu_dflt_name(void) LL_NOEXCEPT;
/* 1 when the type is NATIVE or HX, else 0. */
LL_API int clu_is_cluster_host(void) LL_NOEXCEPT;
/* 1 when this node is a cluster host and the file formed by directory, name,
 * "." and "clustersvr" (concatenated as they are) exists. Computed once; a
 * null argument on a cluster host answers 0 without keeping the answer. */
LL_API int clu_is_cluster_mode(const char *name, const char *directory) LL_NOEXCEPT;
/* Non-zero when host is a virtual host served by this node. */
LL_API int clu_is_localvirthost(const char *host) LL_NOEXCEPT;
/* 1 when the file "pathownerignore" exists in the program's own directory
 * (callers then skip the check that a path belongs to the host they serve).
 * With verbose, the search and the find are also written on standard error. */
LL_API int clu_path_owner_ignore(int verbose) LL_NOEXCEPT;
/* The cluster host name for this process: the first call keeps a copy of
 * host, or with a null host the owner of path; later calls return the kept
 * name. Library storage: do not free. Null when nothing could be found. */
LL_API const char *clus_get_hostname(const char *host, const char *path) LL_NOEXCEPT;
/* The name under which a service answers, as a new copy (free it), or null.
 * mode 1: this machine's name. mode 2: with a null host the cluster host name
 * of path; else the official name of host when it owns path and is a virtual
 * host of this node. A null cmp means the one given to clu_init. */
LL_API char *clus_get_service_hostname(const char *host, const char *path, int mode,
                                       clu_hostcmp_fn cmp) LL_NOEXCEPT;

/* ---- path lists ----
 * One process-wide list of paths and their owning hosts. It is not locked:
 * one thread builds it (add paths, add virtual hosts, normalise, finalise)
 * before any thread uses it. */

/* Adds path (copied) with no owner yet; a null path adds nothing. */
LL_API void clu_pathl_addpath(const char *path) LL_NOEXCEPT;
/* Adds the virtual hosts of this node and the disks they own, from the native
 * cluster (each disk as the path of its volume, owned by the network name of
 * its group). Returns the number of entries added (0 without a native
 * cluster). */
LL_API int clu_pathl_addvirthosts(void) LL_NOEXCEPT;
/* Removes entries of the same path (the one with an owner, else the first,
 * stays) and unowned entries that lie below a path owned by a host. */
LL_API void clu_pathl_normalize(void) LL_NOEXCEPT;
/* Gives every entry without an owner this machine's name and puts the list
 * in the order the paths were added. */
LL_API void clu_pathl_finalize(void) LL_NOEXCEPT;
/* Frees the whole list. */
LL_API void clu_pathl_free(void) LL_NOEXCEPT;
/* 1 when the list is not empty. */
LL_API int clu_is_pathl_created(void) LL_NOEXCEPT;
/* The name of the host that owns path, as a new copy (free it). */
LL_API char *clu_pathl_gethost(const char *path) LL_NOEXCEPT;
/* Stores in *out a new null-terminated array of copies of the paths owned by
 * host (free each and the array), or null when it owns none; returns their
 * number. A null cmp means the one given to clu_init. */
LL_API int clu_pathl_getmounts(const char *host, char ***out, clu_hostcmp_fn cmp) LL_NOEXCEPT;
/* 1 when host owns path (by the owner of clu_pathl_gethost and the cluster's
 * host-matching rule), else 0. */
LL_API int clu_pathl_hostpath_match(const char *host, const char *path, clu_hostcmp_fn cmp) LL_NOEXCEPT;

LL_END_DECLS

#endif

/*
 * liblocal/dtree.h - directory-tree walker.
 *
 * qz_dtree_walk visits a tree depth first and calls the caller's function
 * for every entry with its stat record (the link itself for a link). Names
 * are UTF-8 and may be of any length: the walk opens each directory relative
 * to its parent, so no path is ever handed whole to the system.
 *
 * Order: the entries of a directory are visited sorted by name (byte order
 * of the UTF-8 names), so two walks of the same tree agree; QZ_DTW_DIRORDER
 * keeps the order the system lists them in, which is faster.
 *
 * Visits: a directory is visited before its entries (QZ_DTV_PRE) and after
 * them (QZ_DTV_POST); anything else once (QZ_DTV_ENTRY). An entry that
 * cannot be inspected or a directory that cannot be read is reported as
 * QZ_DTV_ERROR with its error number in `error`, and the walk goes on.
 *
 * What is not walked into by default: links (and, on Windows, junctions and
 * other reparse points that name another place), directories on another
 * file system than the root (mount points) and devices, pipes and sockets
 * are reported with their kind and never followed. QZ_DTW_FOLLOW follows
 * links and junctions to directories and QZ_DTW_XDEV crosses into other file
 * systems; a directory that is already on the path being walked (a loop) is
 * reported as QZ_DTK_LOOP and never entered, whatever the flags. The root
 * itself is followed when it is a link.
 *
 * Special kinds: the process has one handler per entry kind, consulted
 * before an entry of that kind is reported (see qz_dtree_sethandler).
 * add_dtree_handlers registers the built-in ones, which _qzinit does at
 * start; a walk made before that behaves as if they were registered.
 */
#ifndef LIBLOCAL_DTREE_H
#define LIBLOCAL_DTREE_H

#include "export.h"
#include "fileio.h"

LL_BEGIN_DECLS

/* Visits */
#define QZ_DTV_ENTRY 0 /* anything but a directory walked into */
#define QZ_DTV_PRE 1   /* a directory, before its entries */
#define QZ_DTV_POST 2  /* a directory, after its entries */
#define QZ_DTV_ERROR 3 /* an entry or directory that failed; see error */

/* Kinds */
#define QZ_DTK_FILE 0
#define QZ_DTK_DIR 1
#define QZ_DTK_LINK 2     /* symbolic link, not followed */
#define QZ_DTK_JUNCTION 3 /* Windows junction or other reparse point naming another place */
#define QZ_DTK_MOUNT 4    /* directory on another file system, not crossed */
#define QZ_DTK_SPECIAL 5  /* device, pipe, socket */
#define QZ_DTK_LOOP 6     /* directory already on the current path */
#define QZ_DTK_COUNT 7

/* Walk flags */
#define QZ_DTW_FOLLOW 0x1   /* follow links and junctions to directories (never into a loop) */
#define QZ_DTW_XDEV 0x2     /* cross into other file systems */
#define QZ_DTW_DIRORDER 0x4 /* the system's directory order instead of sorted names */

/* Answers of the caller's function */
#define QZ_DTW_CONTINUE 0
#define QZ_DTW_PRUNE 1 /* at QZ_DTV_PRE: do not walk into this directory */
#define QZ_DTW_STOP 2  /* end the walk; any other non-zero answer ends it too */

typedef struct qz_dtree_entry {
  const char *path;             /* the root as given, then "/" or "\" and the names below it */
  const char *name;             /* the last component, inside path */
  int depth;                    /* 0 for the root */
  int visit;                    /* QZ_DTV_* */
  int kind;                     /* QZ_DTK_* */
  int error;                    /* errno value for QZ_DTV_ERROR, else 0 */
  const struct ll_stat64 *st;   /* the entry's record (the link's own for a link); null when it could not be read */
} qz_dtree_entry;

typedef int (*qz_dtree_fn)(const qz_dtree_entry *entry, void *arg);

/* Walks root. Returns 0 when the whole tree was visited (entries that
 * failed were reported on the way), -1 with errno when root is null, empty
 * or cannot be inspected or fn is null, or the first non-zero answer of fn
 * other than QZ_DTW_PRUNE, which ends the walk (QZ_DTW_STOP gives 2). */
LL_API int qz_dtree_walk(const char *root, int flags, qz_dtree_fn fn, void *arg) LL_NOEXCEPT;

/* Handlers for special kinds, one per kind and process. A handler answers
 * for an entry of its kind before the walk reports it: */
#define QZ_DTH_REPORT 0 /* report it, do not follow it */
#define QZ_DTH_FOLLOW 1 /* walk into it as a directory when it leads to one (never a loop) */
#define QZ_DTH_SKIP 2   /* neither report nor follow */
typedef int (*qz_dtree_handler)(const qz_dtree_entry *entry, int flags);

/* Sets the handler of kind (QZ_DTK_LINK .. QZ_DTK_LOOP) and returns the one
 * it replaces; a null handler restores the built-in one. Null with errno
 * EINVAL for a kind that takes no handler (files and directories). */
LL_API qz_dtree_handler qz_dtree_sethandler(int kind, qz_dtree_handler handler) LL_NOEXCEPT;

/* Registers the built-in handlers: links and junctions follow under
 * QZ_DTW_FOLLOW, mount points are crossed under QZ_DTW_XDEV, everything
 * else is reported. Returns 0. */
LL_API int add_dtree_handlers(void) LL_NOEXCEPT;

LL_END_DECLS

#endif

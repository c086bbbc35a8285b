/*
 * liblocal/path.h - path syntax and canonicalisation.
 *
 * Pure string routines over UTF-8 path names (only qzmo_getcwd, eightdot3 and
 * fullcanon without a directory look at the system). Each *_dirsep routine
 * takes the separator as its last argument: the backslash (92), with which
 * drive letters ("C:") and UNC names ("\\host\share") are understood, or the
 * slash (47), with which the routines are plain POSIX path routines. The short
 * forms pass the backslash.
 *
 * The root marker is the two-byte string "/" whichever separator is in use:
 * the canonical form of every root, the parent of a top-level name.
 *
 * Canonical form (canon): with the backslash, slashes become backslashes, one
 * trailing double quote is cut (a stray closing quote from command-line
 * parsing), the drive part (everything before the first colon) or the UNC
 * host (and share) is upper-cased; then separator runs collapse, trailing
 * separators go, "." components are dropped and ".." components fold away
 * the component before them. A UNC name other than a file share, or a share
 * without a file part, only gets the first changes; in a share path only the
 * part after the share is folded. What folds away to nothing is "/".
 *   "C:\" and "C:\\\"  -> "C:"          "\" and "C:\.."  -> "/"
 *   "a\.\b"            -> "a\b"         "\a\b\..\c"      -> "\a\c"
 *   "\\h\s\a\..\b"     -> "\\H\S\b"     "\\.\pipe\x"     unchanged
 * The first character of a path is never looked at as part of a component:
 * it behaves like a separator. So ".\a" stays ".\a" (a leading "." is left
 * alone), while "..\a" becomes "\a", "x.\y" becomes "\y", "a..\b" becomes
 * "\b" and "x." becomes "/". A ".." at the top level removes everything
 * before it, drive letter included. These results are deliberate.
 *
 * canon and fullcanon do not check sizes: the output buffer must hold the
 * input plus the current directory plus two bytes. The getpathchild and
 * getpathparent families check theirs and fail with errno 28 (ENOSPC); their
 * root answer "/" is always written as two bytes, so a caller's buffer must
 * have room for at least two.
 */
#ifndef LIBLOCAL_PATH_H
#define LIBLOCAL_PATH_H

#include "export.h"

LL_BEGIN_DECLS

/* Newly allocated "dir<sep>name" (no separator added when dir already ends in
 * one; nothing else is changed). A null dir stands for ".\" (a dot and a
 * backslash, whatever the separator), a null name for "". Null when both are
 * null or memory is short. Free with free(). */
LL_API char *path_concat(const char *dir, const char *name) LL_NOEXCEPT;
LL_API char *path_concat_dirsep(const char *dir, const char *name, int sep) LL_NOEXCEPT;

/* Canonical form of name in buf (buf may be name itself). */
LL_API void canon(const char *name, char *buf) LL_NOEXCEPT;
LL_API void canon_dirsep(const char *name, char *buf, int sep) LL_NOEXCEPT;

/* Canonical absolute form of name in buf, against cwd or, when cwd is null,
 * the current directory (of the named drive for a drive-relative name such as
 * "D:x"). With the slash a directory must be given: a null cwd aborts the
 * process. When the current directory cannot be read buf is left untouched.
 * Returns buf; callers do not rely on the value. */
LL_API char *fullcanon(const char *name, char *buf, const char *cwd) LL_NOEXCEPT;
LL_API char *fullcanon_dirsep(const char *name, char *buf, const char *cwd, int sep) LL_NOEXCEPT;

/* Last component of path in buf of size bytes; a null buf makes an allocation
 * of strlen(path)+1 bytes (free it). "C:\" -> "C:", "C:foo" -> "foo",
 * "a\b\" -> "b", "/" -> "". A UNC name without a file part is its own child.
 * Null (errno 28) when the child does not fit, null for a null path. */
LL_API char *getpathchild(const char *path, char *buf, unsigned int size) LL_NOEXCEPT;
LL_API char *getpathchild_dirsep(const char *path, char *buf, unsigned int size, int sep) LL_NOEXCEPT;

/* Parent of path in buf (or a new allocation, as above): "C:\a" -> "C:",
 * "C:foo" -> "C:", "\a" -> "/", "C:\" -> "/", "/" -> "/". Null when there is
 * none ("a" has no parent), or with errno 28 when it does not fit. */
LL_API char *getpathparent(const char *path, char *buf, unsigned int size) LL_NOEXCEPT;
LL_API char *getpathparent_dirsep(const char *path, char *buf, unsigned int size, int sep) LL_NOEXCEPT;

/* Number of components below the root: "C:\a\b" 2, "C:a" 1, "\" and "/" 0,
 * "\\h\s\x\y" 3 (host and share count as one). */
LL_API unsigned int getpathdepth(const char *path) LL_NOEXCEPT;
LL_API unsigned int getpathdepth_dirsep(const char *path, int sep) LL_NOEXCEPT;

/* Trailing separators. adddirsep appends one unless path is "/" or already
 * ends in one (path needs room for one more byte). rmdirsep cuts them, but
 * never the first character, and returns how many it cut. setdirsep leaves
 * exactly count (the root "/" counts as one already). */
LL_API char *adddirsep(char *path, int sep) LL_NOEXCEPT;
LL_API int rmdirsep(char *path, int sep) LL_NOEXCEPT;
LL_API char *setdirsep(char *path, int count, int sep) LL_NOEXCEPT;

/* 1 when relative, 0 when absolute. With the backslash a UNC name, "/", a
 * name beginning with a backslash and any name holding a colon are absolute. */
LL_API int ispathrelative(const char *path, int sep) LL_NOEXCEPT;

/* Newly allocated directory part (backslash form): "C:\dir\f" -> "C:\dir",
 * "C:\f" -> "C:", "\f" -> "\"; null for "C:\", "f" and null. */
LL_API char *qz_dirname(const char *path) LL_NOEXCEPT;

/* Newly allocated installation prefix of path for the application directory
 * name appname: "C:\Program Files\app\bin\x.exe" with "app" gives
 * "C:\Program Files\app" (last "\app\", case-insensitive), else through the
 * first "app\" after a colon, else a path beginning with "app\" gives its
 * first strlen(appname) bytes. Null when none applies. */
LL_API char *parse_apppath(const char *appname, const char *path) LL_NOEXCEPT;

/* Overwrites path with its short (8.3) form when the system has one; returns
 * path. On POSIX names have no short form and path is returned unchanged. */
LL_API char *eightdot3(char *path) LL_NOEXCEPT;

/* The current directory (as utf8_getcwd), under the library's process-wide
 * lock. */
LL_API char *qzmo_getcwd(char *buf, int size) LL_NOEXCEPT;

LL_END_DECLS

#endif

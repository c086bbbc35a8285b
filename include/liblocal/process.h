/*
 * liblocal/process.h - spawning, waiting for and signalling processes; pipes and command streams.
 *
 * Every thread has its own table of the children it started (processes with
 * spawn, threads with spawnthread): waitchild and kill find a child by name
 * only in the calling thread's table, and waitchild(-1) waits only for the
 * calling thread's children.
 *
 * pipe, popen, pclose, kill and nice are also C library names: the library
 * exports them as ll_pipe, ll_popen, ... and this header maps the plain names
 * to them after including the system headers that declare the originals.
 */
#ifndef LIBLOCAL_PROCESS_H
#define LIBLOCAL_PROCESS_H

#include <stdio.h>
#include <signal.h>
#if !defined(_WIN32)
#  include <unistd.h>
#endif

#include "export.h"
#include "socket.h"

LL_BEGIN_DECLS

/* ---- spawn flags ---- */
#define QZ_SPAWN_WAIT 1         /* wait for the child; -1 when it exits with a code whose low 8 bits are 0 and that is not 0 */
#define QZ_SPAWN_NEWGROUP 4     /* a new process group */
#define QZ_SPAWN_DETACHED 8     /* detached from the console (POSIX: a new session) */
#define QZ_SPAWN_INTERPRETER 64 /* internal: the command runs through the command interpreter */

/* ---- wait status ----
 * The status is the child's exit code shifted left by 8; the low 8 bits are
 * always 0. A child ended by kill(pid, 9) reports code 9 on every platform.
 * On POSIX a child ended by another signal n reports code 128 + n; a child
 * killed by SIGKILL from elsewhere reports 9 as well. Exit codes above 255
 * exist only on Windows (POSIX keeps the low 8 bits). */
#define QZ_WEXITCODE(status) ((int)(((unsigned int)(status)) >> 8))
#define QZ_WSUCCESS(status) ((status) == 0)
#define QZ_WKILLED(status) (QZ_WEXITCODE(status) == 9)
#define QZ_WSIGNALCODE(sig) (128 + (sig)) /* the code a child ended by signal sig reports (POSIX) */
#define QZ_WAIT_NOHANG 1                  /* waitchild option: do not block */

/* spawn_as_user's token on POSIX: the user and group the child runs as (its
 * supplementary groups are dropped). On Windows the token is a HANDLE. */
typedef struct qz_spawn_user {
  uint32_t uid;
  uint32_t gid;
} qz_spawn_user;

/* Starts argv[0] (UTF-8; found next to the running program first, then as
 * the system finds programs) with the words of argv. 'inherit' (may be null)
 * is the set of descriptors the child inherits at the same numbers; the
 * child inherits nothing else. 'stdfds' (may be null) is {stdin, stdout,
 * stderr}: -1 is the default (stdin: the null device; stdout, stderr: the
 * caller's). 'env' (may be null) holds NAME=value strings that the child gets
 * before the caller's environment (they win); the child also gets
 * "BSW_MAST=<program name>". ".bat" and ".cmd" files run through the command
 * interpreter on Windows, with every argument passed as data.
 * Returns the child's id, or -1 with errno (EINVAL for a bad vector, set,
 * descriptor or environment string, ENOENT and the like from the system). */
LL_API int spawn(int flags, char **argv, qz_fd_set *inherit, int *stdfds, char **env) LL_NOEXCEPT;
/* As spawn, run as the user of 'token' (null: as the caller). */
LL_API int spawn_as_user(int flags, char **argv, qz_fd_set *inherit, int *stdfds, char **env,
                         void *token) LL_NOEXCEPT;

/* Starts fn(arg) on a new thread and records it in the calling thread's
 * table; waitchild reports fn's result shifted left by 8. Thread id or -1. */
LL_API int spawnthread(void *(*fn)(void *), void *arg) LL_NOEXCEPT;

/* Waits for the child 'id' of the calling thread, or for any of its children
 * (id -1). Returns the id and stores the wait status; 0 when nothing ended
 * and QZ_WAIT_NOHANG was given (status 255); -1 with ECHILD when the thread
 * has no children or the wait fails. An id that is not in the table is
 * returned as it is, with status -256. 'status' may be null. */
LL_API int waitchild(int id, int *status, int options) LL_NOEXCEPT;

/* Signals children. Signal 18 does nothing (0). Signal 0 probes: 0 when the
 * process exists, -1 with ESRCH when not. id 0 (or minus the caller's own
 * process id) means every process child of the calling thread: the result
 * is that of the last one, the signal number when there is none. Signal 9
 * ends the child with code 9; it returns 9 (not -1) for a child that is not
 * in the table. Any other signal asks the child to stop (Windows: its
 * "<pid>KILLEVENT" event; POSIX: SIGTERM). */
#undef kill
#define kill ll_kill
LL_API int kill(int id, int sig) LL_NOEXCEPT;

/* A pipe {read end, write end}; both ends are closed on exec and not
 * inherited. 0, or -1 with EMFILE for every failure. */
#undef pipe
#define pipe ll_pipe
LL_API int pipe(int fds[2]) LL_NOEXCEPT;

/* A stream to (mode "w...") or from (mode "r...") a command run by the
 * command interpreter; null on failure. pclose must be called by the thread
 * that called popen: it returns the wait status, or -1 for a stream popen
 * did not return or a wait that fails (the stream is closed in every case). */
#undef popen
#undef pclose
#define popen ll_popen
#define pclose ll_pclose
LL_API FILE *popen(const char *command, const char *mode) LL_NOEXCEPT;
LL_API int pclose(FILE *stream) LL_NOEXCEPT;

/* Lowers (or raises) the calling thread's priority by 'increment' on the
 * nice scale -20..19; the process's other threads are not changed.
 * 0, or -1. */
#undef nice
#define nice ll_nice
LL_API int nice(int increment) LL_NOEXCEPT;

/* Standard input, output and error of the process go to (and come from)
 * the file 'path', opened for appending. The result of the last
 * duplication, or -1. */
LL_API int setup_stdfds(const char *path) LL_NOEXCEPT;
/* Descriptors 0, 1 and 2 that are closed are opened on the null device. */
LL_API void qz_openstdfiles(void) LL_NOEXCEPT;
/* Closes every descriptor but 0, 1, 2 and 'keep' (when not negative); on
 * Windows nothing is inherited unasked, and this does nothing. */
LL_API void qz_closenstdfiles(int keep) LL_NOEXCEPT;

LL_END_DECLS

#endif

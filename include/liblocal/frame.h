/*
 * liblocal/frame.h - attach, initialisation, data areas and the global flags.
 *
 * Every piece of mutable library state lives in a data area. An area is
 * identified by the initialiser that makes it; P_GetDataAreaPtr returns the
 * calling process's area of that kind and T_GetDataAreaPtr the calling
 * thread's, creating it on first use (creation never fails: allocation is
 * retried every 2000 ms). T_threadexit destroys the calling thread's areas in
 * reverse creation order; the process's areas go at library detach.
 */
#ifndef LIBLOCAL_FRAME_H
#define LIBLOCAL_FRAME_H

#include "export.h"

LL_BEGIN_DECLS

/* Destructor of a data area, and the initialiser that makes one: it allocates
 * and fills the area, stores its destructor through 'out' (or leaves it null,
 * and the area is released with free) and returns the area. */
typedef void (*qz_area_dtor)(void *area);
typedef void *(*qz_area_init)(qz_area_dtor *out);

/* Global flags: plain words, read without locking. */
LL_API extern int Debug;      /* debug level; traces of level n print when Debug >= n */
LL_API extern int Vflag;      /* the program's verbosity; stored only */
LL_API extern int Mast_flag;  /* UTF-8 pass-through switch of the output layer */
LL_API extern int Quit;       /* non-zero once the process was asked to quit */
LL_API extern int Catd;       /* the library's message catalog, -1 when none */
LL_API extern void *Global_liblocal_p_varp; /* the per-process area once it exists */

/* Initialise the library for this program. 'name' is the program's path or
 * name; argc/argv may be 0/NULL. The first call does the one-time work; every
 * call converts the argument vector to UTF-8 in place (unless the variable
 * BSW_MAST is "NO_UTF8"). */
LL_API void _qzinit(const char *name, int argc, char **argv) LL_NOEXCEPT;
LL_API void qzinit(const char *name) LL_NOEXCEPT;

LL_API void *P_GetDataAreaPtr(qz_area_init init) LL_NOEXCEPT;
LL_API void *T_GetDataAreaPtr(qz_area_init init) LL_NOEXCEPT;
LL_API void T_threadexit(void) LL_NOEXCEPT;
LL_API qz_area_init get_liblocal_p_init(void) LL_NOEXCEPT;
LL_API qz_area_init get_liblocal_t_init(void) LL_NOEXCEPT;

/* 1: process areas are torn down by an exit handler registered with the
 * first area; 0: only at library detach (the value after attach). */
LL_API void set_use_atexit(int use) LL_NOEXCEPT;
LL_API int liblvars_set_debug(int level) LL_NOEXCEPT;
LL_API int qz_thr_init(void) LL_NOEXCEPT;

/* Start-up hook for developers: with the wait flag raised in a debugger, or
 * the program named in BSW_DEBUGPROCS, waits until a debugger clears it. */
LL_API void debug_check(const char *name) LL_NOEXCEPT;

/* 1 when PURIFY_IS_RUNNING is set in the environment. */
LL_API int qzpurify_is_running(void) LL_NOEXCEPT;

/* Null-terminated array of the library's identity strings: maker, product,
 * version, build, event source. */
LL_API const char **GetOemStringArray(void) LL_NOEXCEPT;

/* Real and effective user (group) ids captured at initialisation. Either
 * pointer may be null; returns the second. */
LL_API long *get_saved_uids(long *real, long *effective) LL_NOEXCEPT;
LL_API long *get_saved_gids(long *real, long *effective) LL_NOEXCEPT;

/* Reads and applies the run-time debug control file (the handler of the
 * process's debug event calls it; exported for tools and tests). Returns 1
 * when a file was read, 0 when there was none. */
LL_API int qz_read_debug_control(void) LL_NOEXCEPT;
/* The name of the debug control file ("<tmpdir>\qzdbg.tmp"), empty before
 * initialisation. */
LL_API const char *qz_debug_control_file(void) LL_NOEXCEPT;

LL_END_DECLS

#endif

/*
 * liblocal/thread.h - threads, mutexes and condition variables.
 *
 * Every operation answers 1 for success and 0 for failure; none of them sets
 * errno or prints anything. The records are opaque: the caller holds only the
 * pointer that the create operation stored, and gives it back to destroy.
 *
 * Mutexes are recursive (the owner may lock again and unlocks as many times).
 * A mutex whose owner thread ended while holding it is simply acquired by the
 * next locker. Unlocking a mutex the caller does not hold answers 1 and does
 * nothing.
 *
 * Condition variables wake at most one waiter per signal; a signal with no
 * waiter is lost; there is no broadcast. Waits can end without a signal, so
 * always wait in a loop that re-checks the condition. The interval of a timed
 * wait is RELATIVE: the longest time to wait from the call, not a time of day.
 * The caller's mutex is held again when a wait returns, whatever the result.
 */
#ifndef LIBLOCAL_THREAD_H
#define LIBLOCAL_THREAD_H

#include "export.h"

LL_BEGIN_DECLS

typedef struct qz_thr qz_thr_t;
typedef struct qz_mtx qz_mtx_t;
typedef struct qz_cond qz_cond_t;

/* A relative interval: seconds and nanoseconds, counted in milliseconds
 * (seconds * 1000 + nanoseconds / 1000000, truncated toward zero). */
typedef struct qz_timespec {
  int32_t tv_sec;
  int32_t tv_nsec;
} qz_timespec_t;

/* The start function of a thread: one word in, one word out. The low 32 bits
 * of the result are the thread's status. */
typedef void *(*qz_thr_func)(void *arg);

/* Starts a thread running fn(arg). Returns 1 once the new thread is running;
 * on failure stores NULL in *thr and returns 0. */
LL_API int qz_thr_create(qz_thr_t **thr, qz_thr_func fn, void *arg) LL_NOEXCEPT;

/* Waits for the thread to end and stores its status in *status (status may be
 * NULL). With *nowait non-zero on entry the call does not block: on a thread
 * that still runs it clears *nowait and returns 1 without a status; on an
 * ended thread it leaves *nowait set and delivers the status. nowait must not
 * be NULL. */
LL_API int qz_thr_wait(qz_thr_t *thr, uint32_t *status, int *nowait) LL_NOEXCEPT;

/* Ends the thread wherever it is, with that status (kept only if no status
 * was stored before). Returns 1 also when the thread has already ended. */
LL_API int qz_thr_kill(qz_thr_t *thr, uint32_t status) LL_NOEXCEPT;

/* Waits until the thread no longer runs, then frees the record. A thread that
 * ended through qz_thr_exit counts as running until qz_thr_wait or qz_thr_kill
 * was called for it. */
LL_API int qz_thr_destroy(qz_thr_t *thr) LL_NOEXCEPT;

/* The calling thread's system thread id. */
LL_API uint32_t qz_thr_getid(void) LL_NOEXCEPT;
LL_API int qz_thr_idsequal(uint32_t a, uint32_t b) LL_NOEXCEPT;

/* Releases the calling thread's library state and ends the thread with that
 * status. Does not return. */
LL_API void qz_thr_exit(uint32_t status) LL_NOEXCEPT;

/* Gives up the rest of the time slice; returns 1. */
LL_API int qz_thr_yield(void) LL_NOEXCEPT;

LL_API int qz_mtx_create(qz_mtx_t **mtx) LL_NOEXCEPT;
/* 0 when mtx is NULL or the mutex cannot be closed (it then stays valid). */
LL_API int qz_mtx_destroy(qz_mtx_t *mtx) LL_NOEXCEPT;
/* Blocks without time limit; 1 once the mutex is held. */
LL_API int qz_mtx_lock(qz_mtx_t *mtx) LL_NOEXCEPT;
LL_API int qz_mtx_unlock(qz_mtx_t *mtx) LL_NOEXCEPT;

LL_API int qz_cond_create(qz_cond_t **cond) LL_NOEXCEPT;
LL_API int qz_cond_destroy(qz_cond_t *cond) LL_NOEXCEPT;
/* Wakes at most one waiter; 1 also when there was none (the signal is lost). */
LL_API int qz_cond_signal(qz_cond_t *cond) LL_NOEXCEPT;
/* Waits without time limit. 1 when woken by a signal; 0 otherwise. */
LL_API int qz_cond_wait(qz_cond_t *cond, qz_mtx_t *mtx) LL_NOEXCEPT;
/* Waits at most the interval (NULL: without limit). 1 when woken by a signal,
 * 0 on time-out or failure. */
LL_API int qz_cond_timedwait(qz_cond_t *cond, qz_mtx_t *mtx, const qz_timespec_t *interval) LL_NOEXCEPT;

LL_END_DECLS

#endif

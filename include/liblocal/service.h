/*
 * liblocal/service.h - services and process events.
 *
 * Process events. Every process that uses the library can be told, by other
 * programs, to stop (the kill event) and to re-read its debug settings (the
 * debug event). On Windows they are the named events "<pid>KILLEVENT" and
 * "<pid>DEBUGEVENT"; on POSIX systems they are the stop signal (SIGTERM) and
 * SIGUSR1, and an interrupt (SIGINT) is a console Ctrl-C. The handlers run
 * on the library's event thread, never in signal context, concurrently with
 * the program's own threads: they should only set flags or end the process.
 *
 * Signal numbers given to handlers: 9 stop, 2 interrupt (Ctrl-C), 17 debug,
 * 18 continue; 13 is ignored by regevent.
 *
 * Services. A daemon becomes a service with RegisterThisService, says it is
 * up with StartThisService and ends with StopThisService. On Windows this is
 * the service control manager; on POSIX systems the system's service manager,
 * spoken to through its notify datagram.
 */
#ifndef LIBLOCAL_SERVICE_H
#define LIBLOCAL_SERVICE_H

#include "export.h"

LL_BEGIN_DECLS

/* A handler of process events, called with the signal number. */
typedef void (*qz_event_handler)(int sig);

/* Handler values of regevent besides functions. */
#define QZ_EVENT_DEFAULT ((qz_event_handler)0)
#define QZ_EVENT_KEEP ((qz_event_handler)1)

/* Registers a handler for a signal; returns 0.
 *  13: nothing happens.
 *  17 (debug): QZ_EVENT_DEFAULT restores the library's debug-file handler
 *      (re-reads the debug control file); QZ_EVENT_KEEP changes nothing;
 *      a function becomes the debug handler.
 *  any other (the kill handler): QZ_EVENT_DEFAULT restores the exit handler
 *      (exit code 9; signal 18 returns), but only when called from the thread
 *      that registered the current handler; QZ_EVENT_KEEP changes nothing; a
 *      function becomes the kill handler and the calling thread is noted.
 *      In a process run as a service the function is also the stop handler
 *      (sethandlerfunc).
 * The first call (or _qzinit) starts the event thread of the process. */
LL_API int regevent(int sig, qz_event_handler handler) LL_NOEXCEPT;

/* 1 when the process has been told to quit (Quit non-zero; a value other
 * than 1 is set to 1), else 0. Yields the processor first. */
LL_API int quit_now(void) LL_NOEXCEPT;

/* 1 when the service manager started this process. */
LL_API int RunByService(void) LL_NOEXCEPT;

/* Makes the process the service 'name' (at most 30 characters kept) and
 * returns the service state once it has come up (1, starting), or 0 when the
 * process was not started by the service manager. */
LL_API int RegisterThisService(const char *name) LL_NOEXCEPT;

/* With a NULL name (or this service's own): reports the running state (the
 * event log gets "<display name> has started"). With another service's name:
 * start_service(name, 60). Returns 0 when done, -1 otherwise. */
LL_API int StartThisService(const char *name) LL_NOEXCEPT;

/* With a NULL name (or this service's own): begins the stop; a non-zero code
 * becomes the exit code reported. With another name: stop_service(name, 40).
 * Returns 0 when done, -1 otherwise. */
LL_API int StopThisService(const char *name, int code) LL_NOEXCEPT;

/* The function called with 9 when the service stops. */
LL_API void sethandlerfunc(qz_event_handler handler) LL_NOEXCEPT;

/* 1 when the service is running or starting, else 0. */
LL_API int is_service_running(const char *name) LL_NOEXCEPT;

/* Starts (stops) another service and waits at most 'limit' seconds until it
 * runs (has stopped). 0 when it runs (is stopped) or already did, else -1. */
LL_API int start_service(const char *name, int limit) LL_NOEXCEPT;
LL_API int stop_service(const char *name, int limit) LL_NOEXCEPT;

/* Command-line installation: when argv[1] is "-ADD" (any case) the program
 * argv[0] is installed as the service 'name' with the display name 'display'
 * (NULL: the name); when it is "-REM" the service is removed. With 'pass'
 * set, the words from argv[2] on become the service's start-up arguments.
 * Returns 1 when argv[1] was one of the two (handled, whatever the outcome),
 * else 0. SvcInstalling is SvcInstalling2 with argc 1 and no arguments. */
LL_API int SvcInstalling(char **argv, const char *name, const char *display) LL_NOEXCEPT;
LL_API int SvcInstalling2(int argc, char **argv, const char *name, const char *display, int pass) LL_NOEXCEPT;

/* Windows 9x: registers (1) or unregisters (0) the process as a service
 * process. 0 where that is not available (every other system). */
LL_API int Win9xService(int flag) LL_NOEXCEPT;

LL_END_DECLS

#endif

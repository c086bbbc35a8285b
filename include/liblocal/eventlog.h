/*
 * liblocal/eventlog.h - the system event log and optionally loaded libraries.
 *
 * Windows: events go to the application event log under the product's event
 * source, registered by initialisation with this library as its message file
 * (the library carries the event and category texts). POSIX: events go to the
 * system log as datagrams on its local socket; the event type gives the
 * priority (error: err, warning: warning, information and success: info, the
 * audit types: notice), the program name is the identity, and each message
 * carries its category and type. A missing or broken log drops the event at
 * once and the call reports 0; a listener whose queue is full gets a wait of
 * at most 50 ms for room, and no wait at all while it stays full. On the
 * Windows 9x class every event-log call does nothing.
 *
 * Every call is safe from any thread. Failures are silent (debug traces at
 * level 1 only); no call here crashes or blocks on bad input.
 */
#ifndef LIBLOCAL_EVENTLOG_H
#define LIBLOCAL_EVENTLOG_H

#include <stdarg.h>

#include "export.h"
#include "output.h"

/* Event types (the system's values). */
#define QZ_EVENT_SUCCESS 0
#define QZ_EVENT_ERROR 1
#define QZ_EVENT_WARNING 2
#define QZ_EVENT_INFORMATION 4
#define QZ_EVENT_AUDIT_SUCCESS 8
#define QZ_EVENT_AUDIT_FAILURE 16

/* Number of categories the library's message file defines (1 to 35). */
#define QZ_EVENT_CATEGORIES 35

/* Event identifiers of the library's message file: the one for messages
 * written by eventprintf, and the one used for a report made with 0. */
#define QZ_EVENT_ID_MESSAGE 0x40000001u
#define QZ_EVENT_ID_DEFAULT 0x40000002u

LL_BEGIN_DECLS

/* Writes one event: the message is formatted with the library formatter
 * (UTF-8; invalid sequences become U+FFFD), its line feeds become CR LF on
 * Windows, and it is cut at 12284 bytes of output (UTF-16 on Windows, UTF-8
 * on POSIX) without splitting a character or a line end. Category 0 means
 * the category of the program's own name (getMyname); a category outside 0
 * to 35 is written as no category (0). Returns 1 when the event was handed
 * to the log, 0 otherwise (null format, no log, the Windows 9x class). */
LL_API int eventprintf(int type, int category, const char *fmt, ...) LL_NOEXCEPT LL_FMT(3, 4);
LL_API int veventprintf(int type, int category, const char *fmt, va_list ap) LL_NOEXCEPT LL_FMT(3, 0);

/* Category number (1 to 35) of a program: the first row of the category table
 * holding a name that begins 'name' (compared without regard to case) where
 * 'name' ends or goes on with '.' ("tapectl.exe" is "tapectl"). 0 for a null
 * name or one in no row. */
LL_API int event_category(const char *name) LL_NOEXCEPT;

/* The event-source name for a product key ("bsw" is the library's product;
 * an unknown key gives the product's own source). The answer to the first
 * call is kept for the process and given whenever 'key' is null. */
LL_API const char *event_source_name(const char *key) LL_NOEXCEPT;

/* Registers the event source of a product key (null: the kept one) in the
 * system's registry of event sources, with this library as the message and
 * category file (35 categories, types error, warning and information). Run
 * by initialisation with the library's product key. A source already
 * registered with the same file is left untouched. Returns 1 when the source
 * is registered afterwards, 0 on failure; on POSIX it only settles the source
 * name and returns 1. */
LL_API int event_source_setup(const char *key) LL_NOEXCEPT;

/* Finds a routine in a library loaded on demand: 1 with *out set when found;
 * 0 with *out set to NULL when the library is loaded but lacks the routine;
 * 0 with *out untouched when the library cannot be loaded (no such file, not
 * loadable, a name of more than 1560 bytes, or ten other libraries already
 * loaded). A name with a directory part must name an existing file; a bare
 * name is searched for by the system's loader. Loaded libraries (at most
 * ten, names compared without regard to case) stay loaded until the library
 * shuts down; no error box is ever shown. */
LL_API int dll_find_routine(const char *file, const char *routine, void **out) LL_NOEXCEPT;

LL_END_DECLS

#endif

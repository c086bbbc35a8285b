/*
 * liblocal/errrec.h - error records: typed codes, per-thread current record, printing.
 *
 * A code packs type * 10000 + severity * 1000 + number (type 0..10, severity
 * 0..9, number 0..999); 0 means no error. Severity 1 is a notice, 2 a
 * warning, 3 and above an error. Each thread has one current record; the
 * setters fill it and return its address. Its text is borrowed (a type's text
 * table or the thread's format buffer); a saved copy owns its text.
 */
#ifndef LIBLOCAL_ERRREC_H
#define LIBLOCAL_ERRREC_H

#include "export.h"

LL_BEGIN_DECLS

typedef struct qzerror {
  int code;
  char *text;
} qzerror;

#define QZERR_TYPE(code) ((code) / 10000)
#define QZERR_SEVERITY(code) (((code) / 1000) % 10)
#define QZERR_NUMBER(code) ((code) % 1000)
#define QZERR_CODE(type, severity, number) ((type) * 10000 + (severity) * 1000 + (number))

#define QZERR_NOTICE 1
#define QZERR_WARNING 2
#define QZERR_ERROR 3

/* Built-in types; 8 to 10 are free for programs. */
#define QZERR_T_SYSTEM 1
#define QZERR_T_RPC 2
#define QZERR_T_RAP 3
#define QZERR_T_COMPONENT 4
#define QZERR_T_BAYSTOW 5
#define QZERR_T_JUKEBOX 6
#define QZERR_T_FILEINDEX 7
#define QZERR_MAXTYPE 10

/* Registers (or replaces) error type 'type' (at most 10): 'count' is the
 * highest number defined; 'texts' and 'severities' are indexed by number and
 * borrowed for the life of the process; the name is copied. */
LL_API void err_settype(int type, int count, const char *name, char **texts, int *severities) LL_NOEXCEPT;
/* Sets the current record. A severity of 0 takes the type's default; a null
 * text takes the type's text of 'number'. */
LL_API qzerror *err_setall(int type, int severity, int number, const char *text) LL_NOEXCEPT;
/* 'value' is severity * 1000 + number. */
LL_API qzerror *err_set(int type, int value) LL_NOEXCEPT;
/* Formats the text into the thread's 2048-byte buffer; null (nothing set)
 * when the format is null or the buffer cannot be had. */
LL_API qzerror *err_setstr(int type, int value, const char *fmt, ...) LL_NOEXCEPT;
/* Copies a record into the current one. Its text is used as a format. */
LL_API qzerror *err_dup(const qzerror *rec) LL_NOEXCEPT;
/* dst = a copy of src with its own heap text (code 0 and null for null src). */
LL_API void err_dup2(const qzerror *src, qzerror *dst) LL_NOEXCEPT;
/* Frees the record's owned text; null is allowed. */
LL_API void err_free(qzerror *rec) LL_NOEXCEPT;
/* Saves a copy of 'rec' in the thread's saved record and returns it. */
LL_API qzerror *err_save(const qzerror *rec) LL_NOEXCEPT;
/* Makes a saved record current again and releases its text; null when there
 * is nothing to restore. */
LL_API qzerror *err_restore(qzerror *saved) LL_NOEXCEPT;
/* Prints the record on standard error with the program prefix. */
LL_API void err_print(const qzerror *rec) LL_NOEXCEPT;

LL_API void init_rpc_errlist(void) LL_NOEXCEPT;
/* The remote-call texts by number (0..27), filled by init_rpc_errlist. */
LL_API extern char *rpc_errlist[28];

LL_END_DECLS

#endif

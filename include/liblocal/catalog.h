/*
 * liblocal/catalog.h - message catalogs and localisation.
 *
 * A message is addressed by set and number; the library's own texts are in
 * set 17. The catalog of the user's language is chosen by the first line of
 * the file gls/GL_LANG in the application directory: its part before the
 * first "." names the language subdirectory, next to the program, that holds
 * the catalog. Without that file every lookup answers its English default.
 */
#ifndef LIBLOCAL_CATALOG_H
#define LIBLOCAL_CATALOG_H

#include "export.h"

LL_BEGIN_DECLS

/* Opens a catalog of the language subdirectory: null or "bsw" opens the
 * library's own, a name with a "." is taken as the file name, any other
 * name gets the platform's catalog suffix. Returns a handle, or -1 (no
 * language, missing or unreadable file, wrong version). */
LL_API int qzcatopen(const char *name) LL_NOEXCEPT;
/* The text of message (set, number) in the catalog 'handle', or the English
 * default. The result lives in a process-wide ring of 20 buffers of 6144
 * bytes: copy it before 19 more lookups. */
LL_API char *qzcatgets(int handle, int set, int number, const char *def) LL_NOEXCEPT;
/* The same text copied into the caller's buffer of 'size' bytes (cut short
 * if need be, always terminated) while the catalog is locked: no other
 * thread's lookup can overwrite it, and the ring is left alone. Returns buf;
 * null for a null buffer or a size of 0. */
LL_API char *qzcatgets_buf(char *buf, size_t size, int handle, int set, int number, const char *def) LL_NOEXCEPT;
/* 0, or -1 when the handle is unknown or cannot be closed; negative: 0. */
LL_API int qzcatclose(int handle) LL_NOEXCEPT;

/* The language subdirectory (null without a locale file), the protocol
 * locale and the user's locale, as initialisation found them. */
LL_API const char *get_lang_subdir(void) LL_NOEXCEPT;
LL_API const char *get_rap_locale(void) LL_NOEXCEPT;
LL_API const char *get_user_locale(void) LL_NOEXCEPT;
/* 1 when the names are equal byte for byte (two nulls are equal). */
LL_API int equal_locales(const char *a, const char *b) LL_NOEXCEPT;

/* 1 when the answer begins with one of the two letters of its kind in the
 * user's language ("y"/"Y", "n"/"N", "q"/"Q", "r"/"R" in English). */
LL_API int is_yes(const char *answer) LL_NOEXCEPT;
LL_API int is_no(const char *answer) LL_NOEXCEPT;
LL_API int is_quit(const char *answer) LL_NOEXCEPT;
LL_API int is_rename(const char *answer) LL_NOEXCEPT;
/* The upper-case answer letter of that kind (its first byte). */
LL_API int i18n_char_yes(void) LL_NOEXCEPT;
LL_API int i18n_char_no(void) LL_NOEXCEPT;
LL_API int i18n_char_rename(void) LL_NOEXCEPT;
/* a, b and c joined, in a buffer of the catalog ring (null counts as ""). */
LL_API char *i18n_3(const char *a, const char *b, const char *c) LL_NOEXCEPT;

/* Facility of a set (set | 0x800) and the message identifier of (set,
 * number) in a message table: facility * 65536 + number. */
LL_API int mc_facility_id(int set) LL_NOEXCEPT;
LL_API unsigned int mc_message_id(int set, int number) LL_NOEXCEPT;

LL_END_DECLS

#endif

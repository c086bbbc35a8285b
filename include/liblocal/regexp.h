/*
 * liblocal/regexp.h - basic regular expressions in the style of the classic
 * line editor: literals, '.', '*', bracket classes, '^' and '$' anchors, up
 * to nine groups \( \) and back-references \1 to \9.
 *
 * A handle records the groups of its last run, so one handle must not be run
 * by two threads at once; distinct handles are independent.
 */
#ifndef LIBLOCAL_REGEXP_H
#define LIBLOCAL_REGEXP_H

#include "export.h"

LL_BEGIN_DECLS

#define QZREGEX_NGROUPS 9

/* Program opcodes; the starred form of an instruction is its opcode + 1. */
enum {
  QZRE_GROUP_OPEN = 1,  /* group number 0..8 */
  QZRE_CHAR = 2,        /* the character */
  QZRE_ANY = 4,
  QZRE_CLASS = 6,       /* count (members + 1), members */
  QZRE_NCLASS = 8,      /* count (members + 1), members */
  QZRE_END_ANCHOR = 10,
  QZRE_END = 11,        /* followed by a 0 byte */
  QZRE_GROUP_CLOSE = 12, /* group number */
  QZRE_BACKREF = 18,    /* group number 0..8 */
  QZRE_STAR = 1
};

typedef struct qzregex {
  const char *group_start[QZREGEX_NGROUPS]; /* into the last subject, or null */
  const char *group_end[QZREGEX_NGROUPS];
  unsigned char *program;                   /* the compiled program */
  size_t capacity;                          /* max(3 x pattern length, 768) */
  unsigned char anchored;                   /* the pattern began with '^' */
  unsigned char icase;                      /* compiled by regex_icmp */
} qzregex;

/* Compiles a pattern, respecting case or ignoring it; null for a null or
 * empty pattern and for any error. */
LL_API qzregex *regex_cmp(const char *pattern) LL_NOEXCEPT;
LL_API qzregex *regex_icmp(const char *pattern) LL_NOEXCEPT;
/* The start of the first match in subject, or null. */
LL_API char *regex_exec(qzregex *re, const char *subject) LL_NOEXCEPT;
/* Frees the handle; null is accepted. */
LL_API void regex_done(qzregex *re) LL_NOEXCEPT;

LL_END_DECLS

#endif

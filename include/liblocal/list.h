/*
 * liblocal/list.h - sorted intrusive lists and sorted search.
 *
 * A list element is any record of the caller's whose first field is the
 * pointer to the next element (null ends the list); a list is named by its
 * first element, and an empty list is null. The library never allocates,
 * frees or copies elements: it relinks them and calls back.
 *
 * Operations that may change the first element take an anchor: the address
 * of the caller's head pointer. The anchor is walked as if it were an element
 * whose next field is the head.
 *
 * Comparison functions return a negative, zero or positive value as their
 * first argument orders before, with or after the second. Lists given to the
 * set operations must already be in that order, without duplicates.
 *
 * Operations that take elements out hand them back as a side list, in the
 * order taken, through an out-pointer that they first set to null.
 */
#ifndef LIBLOCAL_LIST_H
#define LIBLOCAL_LIST_H

#include "export.h"

LL_BEGIN_DECLS

typedef int (*list_cmp_fn)(const void *a, const void *b);
typedef void (*list_print_fn)(void *context, void *element);
typedef void (*list_print_attr_fn)(void *context, void *element, void *attribute);
typedef void (*list_free_fn)(void *element);
typedef void *(*list_dup_fn)(void *element);

/* Calls fn(context, element) for each element in order; the context is
 * passed through untouched. */
LL_API void list_print(void *context, void *list, list_print_fn fn) LL_NOEXCEPT;
LL_API void list_print_attr(void *context, void *list, void *attribute,
                            list_print_attr_fn fn) LL_NOEXCEPT;
/* Calls fn for each element; the next pointer is read first, so fn may free. */
LL_API void list_free(void *list, list_free_fn fn) LL_NOEXCEPT;
/* A new list of fn's results in the same order; null for an empty list. The
 * last result's next field is left as fn returned it. */
LL_API void *list_dup(void *list, list_dup_fn fn) LL_NOEXCEPT;

/* Inserts 'element' in order, unless an equal one is there: then that one is
 * stored in *dup and the list is unchanged. cmp(existing, element). The
 * return value carries no meaning (always 0); test *dup. */
LL_API int list_addelem(void *element, void **anchor, void **dup, list_cmp_fn cmp) LL_NOEXCEPT;
/* Merges the whole source into the destination; cmp(source, destination).
 * On equality the source element takes the destination element's place and
 * the displaced destination element goes to *dups. The source ends empty. */
LL_API void list_addlist(void **src, void **dst, void **dups, list_cmp_fn cmp) LL_NOEXCEPT;
/* Removes every element equal to a key (one element per key) into *removed;
 * cmp(key, element). */
LL_API void list_remove(void **keys, void **list, void **removed, list_cmp_fn cmp) LL_NOEXCEPT;
/* Keeps only the elements equal to a key; the others go to *removed in their
 * former order. Null or empty keys move the whole list. cmp(key, element). */
LL_API void list_intersect(void **keys, void **list, void **removed, list_cmp_fn cmp) LL_NOEXCEPT;
/* Element-wise ordering: the first non-zero cmp(a, b) as it is; otherwise -1
 * when a is shorter, 1 when b is shorter, 0 when both end together. */
LL_API int list_cmp(void *a, void *b, list_cmp_fn cmp) LL_NOEXCEPT;
/* 1 when every element of a has an equal in b (empty a: 1), else 0. */
LL_API int list_subset(void *a, void *b, list_cmp_fn cmp) LL_NOEXCEPT;
/* Links element after the last one (or makes it the head); the element's own
 * next field is left for the caller to set. */
LL_API void list_append(void **head, void *element) LL_NOEXCEPT;

/* Sorts and returns the new head. count 0: the list is counted first; only
 * the first count elements are sorted and kept. cmp receives two pointers to
 * element pointers (as the standard qsort gives them). Not stable. */
LL_API void *list_sort(void *list, int count, list_cmp_fn cmp) LL_NOEXCEPT;
/* Finds an element equal to the key, or null. count 0: counted first.
 * The key has the form of a pointer to an element pointer. Up to 20 elements
 * the list is scanned and called as cmp(&element, key); from 21 the standard
 * bsearch calls cmp(key, &element): cmp must be a true antisymmetric order. */
LL_API void *list_bsearch(void *list, const void *key, int count, list_cmp_fn cmp) LL_NOEXCEPT;

/* The standard qsort when base is not null and count is at least 2. */
LL_API void qzqsort(void *base, size_t count, size_t size, list_cmp_fn cmp) LL_NOEXCEPT;
/* Binary search of a sorted array, cmp(key, element); the element or null. */
LL_API void *local_bsearch(const void *key, const void *base, int count, size_t size,
                           list_cmp_fn cmp) LL_NOEXCEPT;
/* As local_bsearch, returning the index of the match, or when there is none
 * the index of the greatest element ordering before the key, and 0 when
 * there is no such element: 0 does not tell a match at 0 from a miss. */
LL_API int local_bsearch_i(const void *key, const void *base, int count, size_t size,
                           list_cmp_fn cmp) LL_NOEXCEPT;

/* Circular doubly linked lists: records whose first two fields are the next
 * and prev pointers. A head record of the same form stands for the list; an
 * empty list's head points at itself both ways. */
LL_API void *_dlist_init(void *head) LL_NOEXCEPT;
/* Links record directly after position (the head or a member); returns record. */
LL_API void *_dlist_insert(void *record, void *position) LL_NOEXCEPT;
/* Unlinks record (its own pointers are left as they were); returns record. */
LL_API void *_dlist_remove(void *record) LL_NOEXCEPT;

LL_END_DECLS

#endif

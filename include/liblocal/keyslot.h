/*
 * liblocal/keyslot.h - the key-slot table.
 *
 * A fixed table of slots handed out as 32-bit keys: slot index in the low 16
 * bits, the sequence number of the slot's current use in the high 16 bits.
 * A stale key (its slot released and reused since) is refused. Callers keep
 * their per-slot data in a parallel array indexed by slot.
 */
#ifndef LIBLOCAL_KEYSLOT_H
#define LIBLOCAL_KEYSLOT_H

#include "export.h"

LL_BEGIN_DECLS

#define KI_NOKEY 0xFFFFFFFFu

/* A slot word holds the sequence in the high half and, in the low half, the
 * slot's own index while in use or the next free slot while free. */
typedef struct ki_table {
  uint32_t capacity; /* number of slots (at most 65535) */
  uint32_t head;     /* first free slot; >= capacity when full */
  uint32_t slot[1];  /* capacity words */
} ki_table;

/* A new table with every slot free (capacities above 65535 are taken as
 * 65535, the most that 16-bit slot links can chain). */
LL_API ki_table *ki_alloc(uint32_t capacity) LL_NOEXCEPT;
LL_API void ki_free(ki_table *table) LL_NOEXCEPT;
/* Takes the most recently released (or the first never used) slot; -1 when
 * the table is full. */
LL_API int ki_newslot(ki_table *table) LL_NOEXCEPT;
/* As ki_newslot, returning the key; KI_NOKEY when full. */
LL_API uint32_t ki_newkey(ki_table *table) LL_NOEXCEPT;
/* Releases the key's slot and returns it (-1 when the slot is beyond the
 * capacity). The key is not checked: releasing a key that is not current
 * corrupts the free chain, so check it with ki_getslot first. */
LL_API int ki_invalidate(ki_table *table, uint32_t key) LL_NOEXCEPT;
/* The key's slot when the key is current, else -1. */
LL_API int ki_getslot(const ki_table *table, uint32_t key) LL_NOEXCEPT;
/* The slot's current key when it is in use, else KI_NOKEY. */
LL_API uint32_t ki_getkey(const ki_table *table, uint32_t slot) LL_NOEXCEPT;
/* Debugging hook: prints the key when it equals the watched key, or its slot
 * and sequence equal the watched ones (set those from a debugger). */
LL_API void ki_check(uint32_t key) LL_NOEXCEPT;
/* Prints "ki_print: <key>, slot <slot>, seq <seq>" as a level-0 diagnostic. */
LL_API void ki_print(uint32_t key) LL_NOEXCEPT;

LL_END_DECLS

#endif

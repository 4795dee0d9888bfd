/* SPDX-License-Identifier: Apache-2.0 */
/*
 * String-keyed hash table: maps a NUL-terminated tag to a pointer-sized value, with an
 * optional release function per entry.
 *
 * Shape: 1024 fixed buckets (never resized), each a singly linked chain in the order in
 * which its tags were first stored. Bucket of a tag: hash_33(tag) & 1023. The table keeps
 * its own copy of every tag. The records are public so that a caller can walk the chains
 * itself; their layout is fixed (HASH_NODE_ST: 32 bytes, HASH_TABLE_ST: 8 bytes on LP64).
 *
 * Ownership: the table owns its nodes and tag copies. A value belongs to the table from a
 * successful hash_table_put2 on: the table calls its release function (if not null)
 * exactly once, when the value is replaced, removed or the table deleted. A failed store
 * leaves the value with the caller.
 *
 * Threads: the table has no lock. Callers that share one hold their own lock over every
 * call, including the release callbacks, which run inside hash_table_put2, hash_table_rm
 * and hash_table_delete.
 *
 * Arguments: only hash_table_delete accepts a null table. Every other function expects a
 * valid table and (where it takes one) a valid tag.
 *
 * Valid C11 and C++.
 */
#ifndef HASH_TABLE_H
#define HASH_TABLE_H

#include <stdint.h>

#include "dm_export.h"

DM_EXTERN_C_BEGIN

typedef void (*HASH_FREE_VALUE_FN)(void *value);

typedef struct HASH_NODE_ST {
    struct HASH_NODE_ST *next;     /* next node of the same chain, or NULL */
    char *tag;                     /* the table's own copy of the tag */
    void *value;                   /* the caller's value, stored as it is */
    HASH_FREE_VALUE_FN free_value; /* release function for value, or NULL */
} HASH_NODE_ST;

typedef struct HASH_TABLE_ST {
    HASH_NODE_ST **buckets; /* 1024 chain heads, each NULL when its chain is empty */
} HASH_TABLE_ST;

/* Multiplies by 33 and adds each byte taken as a signed char (bytes 0x80..0xFF count
 * -128..-1), in wrapping 32-bit arithmetic. "" hashes to 0, "a" to 97. */
DM_EXPORT uint32_t hash_33(const char *str);

/* A new empty table, or NULL when an allocation or zeroing fails. Release it with
 * hash_table_delete. */
DM_EXPORT HASH_TABLE_ST *hash_table_new(void);

/* Releases every node (calling its release function on its value first), the bucket
 * array and the table. NULL does nothing. */
DM_EXPORT void hash_table_delete(HASH_TABLE_ST *table);

/* Stores value under tag. An existing tag keeps its node: its current release function
 * (if any) is called on its current value, then value and free_value replace both (a NULL
 * free_value replaces the old one too). A new tag is appended at its chain's tail.
 * Returns 0 on success. On failure the table is unchanged, value stays the caller's and
 * the result is -1 (tag copy allocation failed), errno (node allocation failed) or the
 * non-zero code of the failing memset_s or strcpy_s. */
DM_EXPORT int hash_table_put2(HASH_TABLE_ST *table, const char *tag, void *value,
                              HASH_FREE_VALUE_FN free_value);

/* The step of hash_table_put2 for a tag that is not stored yet, exported for
 * compatibility: makes a node with its own copy of tag and links it at *tail, which is
 * the bucket's head slot when the chain is empty, else the last node's next. No search
 * and no "put tag fail" line: 0, or the code of hash_table_put2 for a failed store. */
DM_EXPORT int hash_table_put2_tag_not_stored(HASH_NODE_ST **tail, const char *tag, void *value,
                                             HASH_FREE_VALUE_FN free_value);

/* The value of the first node whose tag equals tag, or NULL when none does. A stored NULL
 * value cannot be told from a missing tag. */
DM_EXPORT void *hash_table_get(HASH_TABLE_ST *table, const char *tag);

/* Unlinks and releases every node whose tag equals tag (release function first). A
 * missing tag changes nothing. */
DM_EXPORT void hash_table_rm(HASH_TABLE_ST *table, const char *tag);

/* Number of nodes, counted in 16 bits (wraps at 65536). */
DM_EXPORT uint16_t count_hash_table(HASH_TABLE_ST *table);

/* Copies values into values[0..] in bucket order (0 to 1023, each chain from its head)
 * while the count is below capacity taken as an unsigned 16-bit number. Returns the
 * count copied. values must hold that many elements; capacity 0 copies nothing. */
DM_EXPORT uint16_t get_hash_table_value(HASH_TABLE_ST *table, void **values, int capacity);

/* Walks every chain and does nothing with the nodes; writes nothing. */
DM_EXPORT void display_hash_table(HASH_TABLE_ST *table);

DM_EXTERN_C_END

#endif /* HASH_TABLE_H */

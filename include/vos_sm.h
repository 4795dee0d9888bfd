/* SPDX-License-Identifier: Apache-2.0 */
/* Timed locks, the SPL lock and binary semaphores.
 *
 * THREAD_TIMED_MUTEX_ST is one lock record serving four kinds, chosen at initialisation:
 *   type 0  binary semaphore       type 2  recursive mutex with owner
 *   type 1  counting semaphore     type 3  read-write lock
 * Time-outs are in milliseconds, 0 meaning wait forever. The caller allocates the record
 * (thread_timed_malloc_id), initialises, uses, destroys and frees it.
 *
 * Result codes of the lock calls (unsigned 32-bit):
 *   0           success
 *   0x20000201  null record pointer
 *   0x20000203  time-out
 *   0x20000204  lock failure: dead lock detected, wait failed, or busy (trylock)
 *   0x20000205  read-write unlock failed
 *   0x20000213  unknown lock type
 *
 * Any thread may call any function; a record is shared by the threads that use it.
 * Valid C11 and C++. */
#ifndef VOS_SM_H
#define VOS_SM_H

#include <pthread.h>
#include <stdint.h>
#include <time.h>

#include "dm_export.h"

DM_EXTERN_C_BEGIN

/* A strict C11 translation unit without POSIX feature macros does not see
 * pthread_rwlock_t; it then gets glibc's own storage shape for it (same size and
 * alignment, checked by the library), so that the record has one layout everywhere. */
#if defined(__USE_XOPEN2K) || defined(__USE_UNIX98)
typedef pthread_rwlock_t VOS_RWLOCK_T;
#else
typedef union {
    char size_[__SIZEOF_PTHREAD_RWLOCK_T];
    long int align_;
} VOS_RWLOCK_T;
#endif

/* One thread waiting on a lock; kept for inspection. */
typedef struct THREAD_WAITER_NODE_ST {
    uint64_t tid;
    struct THREAD_WAITER_NODE_ST *next;
} THREAD_WAITER_NODE_ST;

typedef struct {
    char name[5];            /* up to 4 characters of the creator's name, NUL-terminated */
    pthread_mutex_t mutex;   /* guards every field below (types 0-2) */
    VOS_RWLOCK_T rwlock;     /* type 3 only */
    pthread_cond_t cond;     /* waiters sleep here (types 0-2) */
    int32_t wait_num;        /* threads currently waiting */
    uint32_t locked;         /* 1 while held, 0 after an unlock */
    uint32_t nest_num;       /* extra recursive acquisitions by the owner (type 2) */
    int32_t count;           /* available units; negative while units are reserved */
    int32_t max_count;       /* initial count for type 1, 1 for every other type */
    int32_t type;
    pthread_t owner;         /* last acquiring thread, 0 when released */
    THREAD_WAITER_NODE_ST *pwater_list;      /* head of the waiter list */
    THREAD_WAITER_NODE_ST *pwater_list_tail; /* tail of the waiter list */
} THREAD_TIMED_MUTEX_ST;

/* ---- Timed locks ---------------------------------------------------------------------- */

/* A new zero-filled record (free it with free()), or null when allocation or zeroing fails. */
DM_EXPORT THREAD_TIMED_MUTEX_ST *thread_timed_malloc_id(void);

/* Initialises `m` as `type` with `initial_count` units (`count`; `max_count` is the
 * initial count for type 1, else 1). `name` is cut to 4 characters. Returns 0, 0x20000201,
 * 0x20000213 (fields already written), or the raw error number of memset_s, strncpy_s or
 * the pthread_*_init call that failed. */
DM_EXPORT uint32_t thread_timed_mutex_init(const char *name, THREAD_TIMED_MUTEX_ST *m, int32_t type,
                                           int32_t initial_count);

/* Types 0-2: acquire, waiting at most `timeout_ms` (0: forever). A type-0/1 holder taking
 * the lock again with timeout 0 gets 0x20000204 at once and a dead-lock report.
 * Type 3: `timeout_ms` selects the mode (non-zero read lock, 0 write lock) and never
 * times out. */
DM_EXPORT uint32_t thread_timed_mutex_lock(THREAD_TIMED_MUTEX_ST *m, uint32_t timeout_ms);
/* Never waits: busy gives 0x20000204. `read` matters for type 3 only (non-zero: read lock).
 * A recursive trylock by a type-2 owner succeeds without adding a nesting level. */
DM_EXPORT uint32_t thread_timed_mutex_trylock(THREAD_TIMED_MUTEX_ST *m, uint32_t read);
/* Release. Semaphores have no ownership check: any thread may post. */
DM_EXPORT uint32_t thread_timed_mutex_unlock(THREAD_TIMED_MUTEX_ST *m);
/* Destroys the primitives (not the record, not the waiter list). 0, or 0x20000201. */
DM_EXPORT uint32_t thread_timed_mutex_destroy(THREAD_TIMED_MUTEX_ST *m);

/* Waiter list; the caller holds m->mutex. Add returns 0, 1 (null record or allocation
 * failure) or a memset_s code. Del removes the first node of `tid`, if any. */
DM_EXPORT uint32_t thread_timed_mutex_list_add(THREAD_TIMED_MUTEX_ST *m, uint64_t tid);
DM_EXPORT void thread_timed_mutex_list_del(THREAD_TIMED_MUTEX_ST *m, uint64_t tid);

/* The per-type bodies behind lock and unlock; `self` is the caller's pthread_self(). */
DM_EXPORT uint32_t thead_timed_sem_bin_or_count_lock(THREAD_TIMED_MUTEX_ST *m, uint32_t timeout_ms,
                                                     pthread_t self);
DM_EXPORT uint32_t thead_timed_sem_mutex_lock(THREAD_TIMED_MUTEX_ST *m, uint32_t timeout_ms,
                                              pthread_t self);
DM_EXPORT uint32_t thread_timed_sem_bin_or_count_unlock(THREAD_TIMED_MUTEX_ST *m);
DM_EXPORT uint32_t thread_timed_sem_mutex_unlock(THREAD_TIMED_MUTEX_ST *m, pthread_t self);

/* ---- SPL lock --------------------------------------------------------------------------- */

/* The task layer's critical section (not recursive), set up by task_task_info_init. */
DM_EXPORT extern pthread_mutex_t g_task_splmutex;
/* Cleared by every vos_splx that unlocks; nothing else writes it. */
DM_EXPORT extern uint64_t sm_threadid;

/* Initialises `mutex` with default attributes; null does nothing. */
DM_EXPORT void vos_spl_init(pthread_mutex_t *mutex);
/* Locks `mutex`; returns the level: 1 locked, 0 not (null or lock failure). Does not nest. */
DM_EXPORT uint64_t vos_spl_imp(pthread_mutex_t *mutex);
/* Unlocks `mutex` when `level` is 1; any other level does nothing. */
DM_EXPORT void vos_splx(uint64_t level, pthread_mutex_t *mutex);

/* `ts` = wall clock now + `ms` milliseconds: the deadline form every timed wait uses. */
DM_EXPORT void get_abs_time(struct timespec *ts, uint64_t ms);

/* ---- Binary semaphores ---------------------------------------------------------------- */

/* Creates a type-0 record with `initial_count` units (`flags` unused) and stores it in
 * *out_sm at once (out_sm must not be null). Returns 0, 2 when allocation fails, or the
 * initialisation's code; after an initialisation failure *out_sm still holds the record
 * and the caller must vos_sm_delete it. */
DM_EXPORT uint32_t vos_sm_bcreate(const char *name, uint32_t initial_count, uint32_t flags,
                                  THREAD_TIMED_MUTEX_ST **out_sm);
/* Destroys and frees `sm`: 0, or 1 for null. */
DM_EXPORT uint32_t vos_sm_delete(THREAD_TIMED_MUTEX_ST *sm);
/* Take: 0, 0x20000203 time-out, 0x20000204 dead lock or wait failure, 1 for null.
 * `timeout_ms` 0 waits forever. */
DM_EXPORT uint32_t vos_sm_p(THREAD_TIMED_MUTEX_ST *sm, uint32_t timeout_ms);
/* Give (from any thread): 0, or 1 for null. */
DM_EXPORT uint32_t vos_sm_v(THREAD_TIMED_MUTEX_ST *sm);

DM_EXTERN_C_END

#endif /* VOS_SM_H */

/* SPDX-License-Identifier: Apache-2.0 */
/* Threads and priority attributes: the lowest layer of the OS abstraction. It starts
 * detached POSIX threads with a priority-derived attribute set, names them, cancels them,
 * sleeps, and tells which thread and process the caller is.
 *
 * Every function may be called from any thread. Valid C11 and C++. */
#ifndef VOS_OSAL_H
#define VOS_OSAL_H

#include <pthread.h>
#include <stdint.h>

#include "dm_export.h"

DM_EXTERN_C_BEGIN

/* Entry routine of a thread: one 64-bit argument, a 64-bit result (the thread's exit value). */
typedef uint64_t (*OSAL_TASK_ENTRY_FN)(uint64_t arg);

/* Thread start record: allocated by osal_create_task, owned and freed by the new thread. */
typedef struct {
    OSAL_TASK_ENTRY_FN entry;
    uint64_t arg;
    const char *name; /* not copied: the caller's string must outlive the thread's start */
} OSAL_TASK_PARA_ST;

/* Diagnostic counters of successful / failed pthread_create calls; zero at load, never
 * reset. Updated atomically by the library; readers get a momentary value. */
DM_EXPORT extern uint64_t g_creatthreadoknum;
DM_EXPORT extern uint64_t g_creatthreadfailnum;
/* Next per-task offset handed out by vos_gen_pid_for_task (vos_task.h); starts at 1. */
DM_EXPORT extern uint32_t g_n_thread_count;

/* Starts a detached thread named `name` that runs entry(arg). `flags` bit 0 selects the
 * pre-emptive (SCHED_RR) attribute set, other bits are ignored; `priority` 0..255.
 * `stack_size` too small for the system leaves the default stack. Both `out_tid_a` and
 * `out_tid_b` receive the thread identifier, or 0xFFFFFFFF when pthread_create fails.
 * `name` must stay valid until the thread has started.
 * Returns 0 success; 5 parameter failure (priority above 255, null entry or output cell,
 * attribute failure); -1 allocation or memset_s failure; 2 pthread_create failure (also
 * the answer when SCHED_RR is refused to an unprivileged process). */
DM_EXPORT int64_t osal_create_task(const char *name, OSAL_TASK_ENTRY_FN entry, uint64_t priority,
                                   int32_t flags, uint64_t stack_size, uint64_t arg,
                                   uint64_t *out_tid_a, uint64_t *out_tid_b);

/* Fill a caller-provided, not yet initialised attribute object (the function calls
 * pthread_attr_init; the caller destroys it). The normal set is SCHED_OTHER priority 0
 * whatever `priority` says; the pre-emptive set is SCHED_RR at a value scaled from 0..255
 * onto the system's range. Both: system scope, explicit scheduling, detached.
 * Return 0, or 1 when `attr` is null. */
DM_EXPORT uint32_t set_thread_attr_by_prio(uint64_t priority, pthread_attr_t *attr);
DM_EXPORT uint32_t set_thread_attr_by_prio_preempt(uint64_t priority, pthread_attr_t *attr);

/* Cancels a thread. 0 success; otherwise 1 when errno reads ESRCH after the failed
 * pthread_cancel, 6 for anything else (errno is consulted, not the returned number). */
DM_EXPORT uint32_t osal_delete_task(uint64_t thread);

DM_EXPORT uint64_t osal_get_self_id(void);   /* pthread_self() */
DM_EXPORT int32_t osal_get_process_id(void); /* getpid() */

/* Scheduler locking is not supported on this platform: both do nothing and return 0. */
DM_EXPORT uint32_t osal_task_lock(void);
DM_EXPORT uint32_t osal_task_unlock(void);

/* Sleeps `ms` milliseconds through select(); a signal shortens the sleep silently.
 * Returns 0. A cancellation point. */
DM_EXPORT uint32_t osal_task_delay(uint64_t ms);

/* The start routine given to pthread_create: names the thread, runs the record's entry,
 * frees the record (also when the thread is cancelled) and returns the entry's result. */
DM_EXPORT void *test_task(void *record);

DM_EXTERN_C_END

#endif /* VOS_OSAL_H */

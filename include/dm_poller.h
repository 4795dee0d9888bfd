/*
 * Event poller: one thread ("do_poll") that polls registered descriptors and runs
 * one-shot timers in deadline order.
 *
 * Threads: poller_run and poller_exit work only on the thread that called
 * poller_create; every other call may come from any thread, callbacks included.
 * Callbacks run on the poll thread with no lock held.
 * Return codes: 0 success, 22 null handle or bad length, 12 out of memory, 1 wrong
 * thread or state, or the errno / code of a failing pipe, fcntl, memset_s, memmove_s
 * or list operation.
 */
#ifndef DM_POLLER_H
#define DM_POLLER_H

#include <stdint.h>

#include "dm_export.h"

DM_EXTERN_C_BEGIN

typedef struct POLLER_ST POLLER_ST; /* opaque poller handle */

/* (descriptor, returned events, the poller's copy of the user data, its length) */
typedef int (*POLLER_FD_CALLBACK)(int fd, int revents, void *user_data, uint32_t user_data_len);
/* (interval_ms, interval_ms minus the milliseconds still left, user data copy, length) */
typedef int (*POLLER_TIMER_CALLBACK)(uint32_t interval_ms, int32_t elapsed_ms, void *user_data,
                                     uint32_t user_data_len);

DM_EXPORT int poller_create(POLLER_ST **out);
DM_EXPORT int poller_run(POLLER_ST *poller);
DM_EXPORT int poller_exit(POLLER_ST *poller);
/* Spelling kept from the system's exported name. */
DM_EXPORT int poller_destory(POLLER_ST *poller);

/* The poller keeps its own copy of `user_data` (`len` bytes); a length of 0 is refused. */
DM_EXPORT int poller_fd_add(POLLER_ST *poller, int fd, int16_t events, POLLER_FD_CALLBACK cb,
                            void *user_data, int32_t len);
DM_EXPORT int poller_fd_remove(POLLER_ST *poller, int fd, int events);

/* A timer handle is the timer entry's address; it is invalid once the timer has fired
 * or been removed. `handle` may be null. */
DM_EXPORT int poller_timer_add(POLLER_ST *poller, uint32_t interval_ms, POLLER_TIMER_CALLBACK cb,
                               void *user_data, int32_t len, void **handle);
DM_EXPORT int poller_timer_remove(POLLER_ST *poller, void **handle);

/* List callbacks of the poller's two lists. */
DM_EXPORT int32_t poller_fd_entry_cmp(void *entry, void *key);
DM_EXPORT void poller_entry_free(void *entry);
DM_EXPORT int32_t poller_timer_deadline_cmp(void *entry, void *key);
DM_EXPORT int32_t poller_timer_entry_cmp(void *entry, void *key);

DM_EXTERN_C_END

#endif /* DM_POLLER_H */

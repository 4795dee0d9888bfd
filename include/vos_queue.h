/* SPDX-License-Identifier: Apache-2.0 */
/*
 * In-process message queues on private System V message queues. Each message carries
 * only a pointer to a heap copy of the payload, so a queue serves the threads of one
 * process. The payload length is not carried: writer and reader agree on it, and the
 * reader copies its own `len` bytes out of the block.
 *
 * Ownership: vos_queue_asy_write copies the caller's data; the copy belongs to the queue
 * until exactly one reader takes it, copies it out and frees it. A failed write frees its
 * copy. vos_queue_delete does not drain: copies still queued are lost.
 *
 * Threads: any thread may call any function; the kernel queue is the only shared state.
 *
 * Identifiers are the msgget result (a signed 32-bit value) carried in 64-bit arguments;
 * only their low 32 bits are used.
 *
 * Result codes: 0x20000500 invalid parameter (create, write), 0x20000519 read time-out,
 * 0xFFFFFFFF (-1) read failure or a refused system call, 1 other create or write failure.
 *
 * Valid C11 and C++.
 */
#ifndef VOS_QUEUE_H
#define VOS_QUEUE_H

#include <stdint.h>

#include "dm_export.h"

DM_EXTERN_C_BEGIN

#define VOS_QUEUE_ERR_PARAM 0x20000500U
#define VOS_QUEUE_ERR_TIMEOUT 0x20000519U
#define VOS_QUEUE_ERR_READ 0xFFFFFFFFU

/* Creates a private queue holding at most `depth` messages and writes its identifier to
 * *out_qid. The queue's owner uid and gid are set to the first 7 bytes of `name` (4 + 3,
 * zero-padded). The kernel lets the queue's creator do so, but refuses ids that the
 * caller's user namespace does not map, and a byte limit (depth * 8) above its default
 * maximum without the right to raise it.
 * `mode` must be 9 or 10 and `extra` non-zero; neither is used otherwise.
 * Returns 0; 0x20000500 for a NULL name or out_qid, a zero depth or extra, or another
 * mode; 1 when msgget, reading or setting the queue's attributes, or a bounds-checked
 * copy fails (a queue whose attributes could not be set is not removed, and *out_qid is
 * not written). */
DM_EXPORT uint32_t vos_private_queue_create(const char *name, uint64_t depth, uint32_t *out_qid,
                                            uint32_t mode, uint64_t extra);

/* Queues a heap copy of len bytes of data without blocking. Returns 0 when queued;
 * 0xFFFFFFFF (-1) when the kernel refused the message (queue full after one retry,
 * removed queue, bad identifier), the copy then freed; 0x20000500 for qid 0xFFFFFFFF,
 * NULL data or a zero len; 1 when the copy could not be allocated or filled. */
DM_EXPORT uint32_t vos_queue_asy_write(uint64_t qid, const void *data, uint32_t len);

/* Takes the next message and copies len bytes of it into buf, then frees the block.
 * timeout_ms 0 waits forever. Otherwise the queue is tried timeout_ms / 100 times (as a
 * signed 32-bit division), 100 ms apart: below 100 ms no attempt is made at all.
 * Returns len; 0x20000519 when no attempt found a message; 0xFFFFFFFF for a NULL buf,
 * a zero len, a failed blocking receive (such as a queue removed meanwhile) or a failed
 * copy. */
DM_EXPORT uint32_t vos_queue_read(uint64_t qid, uint32_t timeout_ms, void *buf, uint32_t len);

/* One attempt without waiting. Returns len with buf filled; 0xFFFFFFFF (-1) when no
 * message is there, for a NULL buf or zero len, or when the copy failed. */
DM_EXPORT uint32_t vos_queue_asy_read(uint64_t qid, void *buf, uint32_t len);

/* Removes the queue. Returns the msgctl result: 0, or 0xFFFFFFFF (-1) with errno set. */
DM_EXPORT uint32_t vos_queue_delete(uint64_t qid);

DM_EXTERN_C_END

#endif /* VOS_QUEUE_H */

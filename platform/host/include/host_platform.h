/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Extras of the Linux host platform layer (libvelmar_hostplat) that a device platform
 * does not have: the failure codes of the bounds-checked functions and the hooks that
 * tests use to steer and capture the device log. Code that must also run on a device
 * uses only dm_platform.h.
 *
 * Valid C11 and C++.
 */
#ifndef HOST_PLATFORM_H
#define HOST_PLATFORM_H

#include "dm_platform.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Failure codes of memset_s, memcpy_s, memmove_s, strncpy_s, strcpy_s ------------
 * The checks run in this order and the first one that fails decides the code.
 *
 * HOST_SEC_ERANGE    dest_max is 0 or above HOST_SEC_MAX_DEST. Nothing is written: a
 *                    size that cannot be trusted cannot be used to clear either.
 * HOST_SEC_EINVAL    dest is null (nothing written), or src is null (destination
 *                    cleared).
 * HOST_SEC_ERANGE    count > dest_max. memset_s fills dest_max bytes with c, the copies
 *                    clear the destination.
 * HOST_SEC_EOVERLAP  source and destination overlap (memcpy_s, strncpy_s, strcpy_s;
 *                    memmove_s allows it). Nothing is written, since clearing the
 *                    destination would destroy the source.
 * HOST_SEC_ETRUNC    strncpy_s / strcpy_s: the string (strncpy_s: its first `count`
 *                    characters) and the terminating zero do not fit in dest_max bytes.
 *                    The destination is cleared.
 *
 * "Cleared" means all dest_max bytes zeroed for the memory functions and dest[0] = '\0'
 * for the string functions. sprintf_s has one failure result, -1, for every one of these
 * cases, including output that does not fit; where dest and dest_max are usable it sets
 * dest[0] = '\0'. A count of 0 with valid arguments succeeds and writes nothing. */
#define HOST_SEC_OK 0
#define HOST_SEC_EINVAL 22
#define HOST_SEC_ERANGE 34
#define HOST_SEC_EOVERLAP 54
#define HOST_SEC_ETRUNC 162
#define HOST_SEC_MAX_DEST 0x7fffffffUL

/* ---- Device log: test hooks ----------------------------------------------------------
 * Levels as in dm_platform.h: 0 debug, 1 info, 2 warning, 3 error.
 *
 * A sink receives every line that passes the level filter instead of the log's output
 * (standard error or VELMAR_LOG_FILE). `line` is the formatted message exactly as the
 * caller's format produced it: no time-stamp prefix and no newline added. It is valid
 * only during the call. Calls to the sink are serialised (never two at once), so the
 * sink itself needs no lock. */
typedef void (*host_dlog_sink_fn)(int level, const char *line, void *ctx);

/* Installs `fn` with `ctx`, or restores the normal output when `fn` is null. Any thread
 * may call it at any time; once it returns, no call to the previous sink is running or
 * will start, so the previous `ctx` may be released. Must not be called from inside a
 * sink. The caller keeps ownership of `ctx`. */
__attribute__((visibility("default"))) void host_dlog_set_sink(host_dlog_sink_fn fn, void *ctx);

/* Overrides the level from VELMAR_LOG_LEVEL: lines of `level` and above are written,
 * and CheckLogLevel answers accordingly. 4 silences every line. A negative value
 * returns to the level from the environment; values above 4 count as 4. Any thread. */
__attribute__((visibility("default"))) void host_dlog_set_level(int level);

/* The level now in force (override, else environment, else 2). Any thread. */
__attribute__((visibility("default"))) int host_dlog_get_level(void);

#ifdef __cplusplus
}
#endif

#endif /* HOST_PLATFORM_H */

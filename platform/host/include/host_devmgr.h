/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The host's device-manager simulator: what stands behind devdrv_open_device_manager,
 * devdrv_imu_dmp_msg_send and devdrv_imu_dmp_msg_recv on a Linux host, and the device
 * side that a test thread, another process or the devmgr-device tool plays.
 *
 * Design. Every party is an AF_UNIX datagram socket bound in one run-time directory:
 *   - each devdrv_open_device_manager() binds "mgr-<pid>-<n>.sock" (n counts the opens
 *     of the process) and returns that socket: it is readable exactly when a message
 *     waits for it;
 *   - a device opened with host_devmgr_device_open(dev_id) binds "dev-<dev_id>.sock".
 * A datagram carries an 8-byte header (a magic number and the device id: the
 * destination device towards a device, the source device towards a process) and the
 * payload. The process side sends to "dev-<id>.sock"; the device side sends to every
 * endpoint "mgr-<pid>-*.sock" of the process, and each descriptor's receive keeps the
 * messages of the device id it asks for and drops the others.
 *
 * Directory: VELMAR_DEVMGR_DIR if set and not empty, else $XDG_RUNTIME_DIR/velmar-devmgr,
 * else /tmp/velmar-devmgr-<uid>. It is read once per process, on first use, and created
 * (mode 0700, its parent must exist) when missing. Processes that are to talk must use
 * the same directory; test programs set a private one before their first call.
 *
 * Results of the device-manager calls: 0 on success, otherwise a positive errno value
 * (below); devdrv_open_device_manager returns a descriptor or a negative errno value.
 *
 * Valid C11 and C++.
 */
#ifndef HOST_DEVMGR_H
#define HOST_DEVMGR_H

#include <stdint.h>

#include "dm_platform.h"

#ifdef __cplusplus
extern "C" {
#endif

#define HOST_DEVMGR_API __attribute__((visibility("default")))

#define HOST_DEVMGR_DIR_ENV "VELMAR_DEVMGR_DIR"
/* Longest payload towards a device: what a one-byte length can describe. */
#define HOST_DEVMGR_MAX_TO_DEVICE 255
/* Longest payload towards a process: the device manager's message size. */
#define HOST_DEVMGR_MAX_TO_PROCESS 32

/* ---- What the process side sees ----------------------------------------------------
 * devdrv_open_device_manager(): a new endpoint, close-on-exec; the caller owns it and
 *   closes it with close(). Negative errno when the directory or socket cannot be made.
 *   The endpoint's name stays in the directory after close(); a device that later finds
 *   it refused removes it, and the next open in any process removes the names of
 *   processes that have ended.
 * devdrv_imu_dmp_msg_send(fd, dev_id, data, len): one message to device dev_id, never
 *   blocking. EINVAL for null data with len > 0, EMSGSIZE above 255 bytes, ENOENT when
 *   no device of that id was ever opened in the directory, ECONNREFUSED when it has
 *   gone, EAGAIN when its queue is full, or the errno of the failing sendto.
 * devdrv_imu_dmp_msg_recv(fd, dev_id, buf, capacity, &len): takes the next waiting
 *   message, never blocking. 0 with the payload in buf and its length in *len; EAGAIN
 *   when nothing waits; ENOMSG when the message came from another device (it is
 *   dropped); EMSGSIZE when it is longer than capacity (dropped); EBADMSG for a datagram
 *   that is not a simulator message (dropped); EINVAL for a null buf or len. */

/* ---- Fault injection (process-wide, any thread) -------------------------------------
 * The next `count` calls of `op` in this process fail with `code` without doing their
 * work: "open" (devdrv_open_device_manager returns `code`, so give a negative value),
 * "send" (nothing is sent), "recv" (one waiting message, if any, is taken and lost, as
 * in a failed transfer). A new call replaces the op's previous setting; a count of 0
 * disarms it. Returns 0, or EINVAL for an unknown or null op. */
HOST_DEVMGR_API int host_devmgr_fail_next(const char *op, uint32_t count, int code);
/* Disarms every op. */
HOST_DEVMGR_API void host_devmgr_fail_clear(void);

/* The run-time directory in use (resolved on the first call of any simulator
 * function). The string lives as long as the process. */
HOST_DEVMGR_API const char *host_devmgr_dir(void);

/* ---- The device side ----------------------------------------------------------------
 * One handle per simulated device. A handle is used by one thread at a time; different
 * handles are independent. */
typedef struct host_devmgr_device host_devmgr_device;

/* Binds the endpoint of device `dev_id`. A name left behind by a device that has gone is
 * taken over. Returns the handle (owned by the caller, released with
 * host_devmgr_device_close), or null with errno set: EADDRINUSE when a live device of
 * that id exists, or the errno of the failing directory, socket or bind call. */
HOST_DEVMGR_API host_devmgr_device *host_devmgr_device_open(uint32_t dev_id);

/* Closes the endpoint and removes its name; null does nothing. */
HOST_DEVMGR_API void host_devmgr_device_close(host_devmgr_device *dev);

/* The endpoint's descriptor, readable when a message from a process waits (for poll;
 * do not read from it directly). */
HOST_DEVMGR_API int host_devmgr_device_fd(const host_devmgr_device *dev);

/* Waits up to `timeout_ms` (negative: for ever, 0: not at all) for the next message a
 * process sent to this device and takes it. On 0: the payload is in `buf`, its length
 * in *len, the sender's pid in *pid (pid may be null). Returns 0; ETIMEDOUT when nothing
 * came; EMSGSIZE when the payload is longer than `capacity` (the message is dropped);
 * EBADMSG for a datagram that is not a simulator message (dropped); EINVAL for a null
 * dev, buf or len; or the errno of the failing poll or recvfrom. */
HOST_DEVMGR_API int host_devmgr_device_recv_from_process(host_devmgr_device *dev, void *buf,
                                                         uint32_t capacity, uint32_t *len,
                                                         int32_t *pid, int timeout_ms);

/* Sends `len` bytes (at most 32) to every endpoint of process `pid`, or, with pid 0, of
 * the process whose message this device received last. Never blocks. Returns 0 when at
 * least one endpoint took the message; EINVAL for a null dev or null data with len > 0;
 * EMSGSIZE above 32 bytes; EDESTADDRREQ for pid 0 before any message came; ENOENT when
 * the process has no endpoint; ECONNREFUSED when all its endpoints are closed (they are
 * removed); EAGAIN when their queues are full. */
HOST_DEVMGR_API int host_devmgr_device_send_to_process(host_devmgr_device *dev, int32_t pid,
                                                       const void *data, uint32_t len);

/* As host_devmgr_device_send_to_process, for a device that need not be opened here (for
 * instance while another program holds it): the message carries `dev_id` as its source.
 * `pid` must be positive (EINVAL otherwise). */
HOST_DEVMGR_API int host_devmgr_send_as_device(uint32_t dev_id, int32_t pid, const void *data,
                                               uint32_t len);

#ifdef __cplusplus
}
#endif

#endif /* HOST_DEVMGR_H */

/* SPDX-License-Identifier: Apache-2.0 */
/*
 * SMBus access: short blocks exchanged with one device at the 7-bit slave address 0x64
 * on the first I2C bus ("/dev/i2c-0"), through the Linux I2C character device. This is
 * not an interface of the message framework: the caller owns the descriptor and calls
 * send and receive itself.
 *
 * Threads. No locking inside. A receive reads from the slave address that the last send
 * on the descriptor selected, so a send and a receive must not run on one descriptor at
 * the same time; the caller serialises them. The sends' failure counter is shared by the
 * whole process and safe to touch from any thread.
 *
 * Return codes are deliberately asymmetric: argument errors give -22, a failed bus write
 * gives -1, while failed bus reads are not detected (they yield a length of 0).
 *
 * Valid C11 and C++.
 */
#ifndef DM_SMBUS_H
#define DM_SMBUS_H

#include <stdint.h>

#include "dm_export.h"

DM_EXTERN_C_BEGIN

#define DM_SMBUS_DEVICE "/dev/i2c-0"
#define DM_SMBUS_SLAVE_ADDR 0x64   /* 100 */
#define DM_SMBUS_CMD_WRITE 0x20    /* block write */
#define DM_SMBUS_CMD_READ_LEN 0x21 /* byte read of the length of the waiting block */
#define DM_SMBUS_MAX_DATA 32

/* Opens "/dev/i2c-0" read-write after resolving symbolic links with realpath, then makes
 * it non-blocking (replacing the status flags) and close-on-exec. Any thread.
 * Returns the descriptor, which the caller owns and closes, or -1 (the path cannot be
 * resolved or opened, or a flag cannot be set: the descriptor is then closed again). */
DM_EXPORT int32_t smbus_save_open(void);

/* Selects the slave 0x64 on `fd` (on every call), then writes `data_len` bytes of `data`
 * as an SMBus block write with command 0x20. The caller keeps `data`.
 * Returns 0; -22 for a null `data` or a `data_len` above 32 (the bus is not touched);
 * -1 when selecting the slave or the write fails; the status of a failing memcpy_s.
 * Failed writes are counted process-wide and reported in the device log once per 601
 * failures in total (a success does not restart the count). */
DM_EXPORT int32_t smbus_msg_send(int32_t fd, const void *data, uint32_t data_len);

/* Reads the length of the waiting block (byte read, command 0x21), then the block itself
 * (count byte and data) in one I2C read from 0x64, and copies the data into `data_recv`,
 * which must hold 32 bytes. `*recv_len` receives the length; with a length of 0 the
 * buffer is not touched. Failed bus reads are not detected: they give a length of 0.
 * Returns 0; -22 for a null argument, a failing memset_s or a length above 32 (then
 * `*recv_len` is not written); the status of a failing memcpy_s. */
DM_EXPORT int32_t smbus_msg_recv(int32_t fd, void *data_recv, uint32_t *recv_len);

DM_EXTERN_C_END

#endif /* DM_SMBUS_H */

/* SPDX-License-Identifier: Apache-2.0 */
// Shared by the two halves of the device-manager simulator (process side and device
// side): the run-time directory, endpoint names, the datagram layout and socket helpers.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "host_devmgr.h"

namespace velmar::hostplat::devmgr {

constexpr uint32_t kMagic = 0x564d4431; // "VDM1"

// Every datagram starts with this header; the payload follows.
struct WireHeader {
    uint32_t magic;
    uint32_t dev_id; // destination device towards a device, source device towards a process
};

constexpr size_t kMaxDatagram = sizeof(WireHeader) + HOST_DEVMGR_MAX_TO_DEVICE;

// The directory, resolved once per process.
const std::string &run_dir();

// Creates the directory if it is missing. 0 or an errno value.
int ensure_run_dir();

std::string device_name(uint32_t dev_id);                 // "dev-<id>.sock"
std::string endpoint_name(int32_t pid, uint32_t seq);     // "mgr-<pid>-<seq>.sock"
// The pid encoded in an endpoint's file name, or -1 for other names.
int32_t endpoint_pid(const char *file_name);

// Fills `addr` with the path of `name` in the directory. 0 or ENAMETOOLONG.
int make_addr(const std::string &name, sockaddr_un &addr, socklen_t &addr_len);

// A datagram socket bound at `name`, or a negative errno value (-EADDRINUSE when the
// name exists and `replace` is false; with `replace` an existing file is removed first).
int bind_endpoint(const std::string &name, bool replace);

// True when nobody receives at `name` any more (its socket was closed) or it is gone.
bool is_dead_endpoint(const std::string &name);

// Sends header and payload as one datagram to `name`, never blocking. 0 or an errno.
int send_datagram(int fd, const std::string &name, uint32_t dev_id, const void *data, uint32_t len);

// Sends to every endpoint of process `pid` from `fd`. Endpoints that refuse are closed
// ones and are removed. 0 when at least one took the message, otherwise an errno value.
int send_to_process(int fd, int32_t pid, uint32_t dev_id, const void *data, uint32_t len);

// Removes the endpoint names of processes that no longer exist.
void sweep_dead_endpoints();

// Checks a received datagram of `got` bytes. 0 or EBADMSG.
int check_datagram(const uint8_t *bytes, ssize_t got, WireHeader &header);

// Fault injection. "open", "send", "recv".
enum class Op { Open = 0, Send = 1, Recv = 2 };
// True when the call must fail; `code` is then the injected result.
bool take_fault(Op op, int &code);

} // namespace velmar::hostplat::devmgr

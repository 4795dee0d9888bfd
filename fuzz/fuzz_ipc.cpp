// SPDX-License-Identifier: Apache-2.0
// The IPC message: the fuzzer's first byte chooses the way in, the rest is the message.
// Even: the simulated device sends it to this process, as a device would (the channel
// carries at most 32 bytes). Odd: the bytes go as a raw datagram straight to the
// interface's endpoint, as any local process could send them, to reach the checks of
// the channel itself. The poller thread receives and dispatches; requests are answered
// to the device.
//
// Beyond the sanitizers it checks the round trip: a message the device sent comes back
// to it whole, once.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "dm_ipc.h"
#include "fuzz_harness.h"
#include "host_devmgr.h"

namespace {

constexpr uint32_t kDevId = 5;

int32_t no_answer(DM_DATA_ST *, DM_DATA_ST *) { return 0; }

struct Ipc {
    DM_INTF_ST *intf = nullptr;
    host_devmgr_device *device = nullptr;
    int raw = -1;
    sockaddr_un endpoint{};
    socklen_t endpoint_len = 0;
};

Ipc &ipc()
{
    static Ipc *i = [] {
        fuzz::private_dir(HOST_DEVMGR_DIR_ENV, "ipc");
        auto *made = new Ipc;
        made->device = host_devmgr_device_open(kDevId);
        fuzz::check(made->device != nullptr, "host_devmgr_device_open");
        DM_ADDR_ST addr{};
        addr.kind = DM_ADDR_KIND_IPC;
        addr.family = DM_ADDR_FAMILY_IPC;
        addr.peer_id = kDevId;
        fuzz::check(dm_ipc_init(&made->intf, fuzz::context(), no_answer, &addr, nullptr, 0) == 0,
                    "dm_ipc_init");
        made->endpoint_len = sizeof(made->endpoint);
        fuzz::check(getsockname(made->intf->fd, reinterpret_cast<sockaddr *>(&made->endpoint),
                                &made->endpoint_len) == 0,
                    "getsockname");
        made->raw = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        fuzz::check(made->raw >= 0, "socket");
        fuzz::watch(made->intf->fd);
        return made;
    }();
    return *i;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Ipc &i = ipc();
    if (size == 0) {
        return 0;
    }
    const bool raw = (data[0] & 1) != 0;
    const uint8_t *msg = data + 1;
    const auto len = static_cast<uint32_t>(size - 1);
    bool delivered = false;
    if (raw) {
        (void)sendto(i.raw, msg, len, 0, reinterpret_cast<const sockaddr *>(&i.endpoint), i.endpoint_len);
    } else {
        delivered = host_devmgr_device_send_to_process(i.device, getpid(), msg, len) == 0;
        fuzz::check(delivered || len > HOST_DEVMGR_MAX_TO_PROCESS, "the device could not send");
    }
    fuzz::settle();
    uint8_t back[HOST_DEVMGR_MAX_TO_DEVICE + 1];
    uint32_t back_len = 0;
    int answers = 0;
    while (host_devmgr_device_recv_from_process(i.device, back, sizeof(back), &back_len, nullptr, 0) == 0) {
        if (answers++ == 0 && delivered) {
            fuzz::check(back_len == len && memcmp(back, msg, len) == 0, "the answer differs from the message");
        }
    }
    fuzz::check(!delivered || answers == 1, "a delivered message was not answered once");
    return 0;
}

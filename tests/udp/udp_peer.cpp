// SPDX-License-Identifier: Apache-2.0
// The other process of the UDP tests: a framework context whose interface "dm_udp" on
// 127.0.0.1 and an ephemeral port (printed as "port <n>") answers every request with its
// own payload. It destroys its context and ends when its standard input closes.
#include <arpa/inet.h>
#include <unistd.h>

#include <cstdio>

#include "velmar_sastox.h"
#include "udp_test_support.h"

namespace {

int32_t echo(DM_INTF_ST *intf, DM_MSG_ST *msg, void *, uint32_t)
{
    return dm_send_rsp(intf, msg->addr, msg->addr_len, &msg->data, msg->req_id);
}

} // namespace

int main()
{
    DM_CB_ST *cb = nullptr;
    DM_INTF_ST *intf = nullptr;
    DM_ADDR_ST addr = udp_test::loopback_addr(0);
    if (dm_init(&cb) != 0 || dm_cmd_register(cb, echo, nullptr, nullptr, 1) != 0 ||
        dm_udp_init(&intf, cb, nullptr, &addr, nullptr, 0) != 0) {
        return 2;
    }
    printf("port %u\n", udp_test::bound_port(intf->fd));
    fflush(stdout);
    char sink[64];
    while (read(STDIN_FILENO, sink, sizeof(sink)) > 0) {
    }
    dm_destroy(cb);
    return 0;
}

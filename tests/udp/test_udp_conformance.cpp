// SPDX-License-Identifier: Apache-2.0
// The transport conformance suite, stamped out for UDP: the interface sends to its own
// bound address on the loopback.
#include <unistd.h>

#include <cstring>

#include "msg/transport_conformance.h"
#include "udp_test_support.h"

namespace {

struct UdpTraits {
    static int make(DM_CB_ST *cb, const char *name, DM_INTF_ST **out)
    {
        DM_ADDR_ST addr = udp_test::loopback_addr(0);
        return dm_udp_init(out, cb, nullptr, &addr, name, static_cast<uint32_t>(strlen(name)));
    }
    static constexpr int kDuplicate = 16;
    static DM_ADDR_ST peer(DM_INTF_ST *intf, uint32_t *addr_len)
    {
        *addr_len = DM_UDP_ADDR_LEN;
        return udp_test::loopback_addr(udp_test::bound_port(intf->fd));
    }
    // Only an interface named "dm_udp" gives its socket back when closed.
    static void closed(int fd, int wfd)
    {
        EXPECT_EQ(fd, wfd);
        EXPECT_TRUE(msg_test::fd_is_open(fd));
        close(fd);
    }
};

} // namespace

namespace msg_test {
INSTANTIATE_TYPED_TEST_SUITE_P(Udp, TransportConformance, UdpTraits);
} // namespace msg_test

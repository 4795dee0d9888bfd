// SPDX-License-Identifier: Apache-2.0
// The transport conformance suite, stamped out for the self-loop.
#include <unistd.h>

#include "transport_conformance.h"

namespace {

struct SelfloopTraits {
    static int make(DM_CB_ST *cb, const char *name, DM_INTF_ST **out)
    {
        return selfloop_init(out, cb, nullptr, name, 0);
    }
    static constexpr int kDuplicate = 16;
    static DM_ADDR_ST peer(DM_INTF_ST *intf, uint32_t *addr_len)
    {
        *addr_len = sizeof(DM_ADDR_ST);
        return intf->addr;
    }
    // Only the context's own "selfloop" gives its pipe back when closed.
    static void closed(int fd, int wfd)
    {
        EXPECT_TRUE(msg_test::fd_is_open(fd) && msg_test::fd_is_open(wfd));
        close(fd);
        close(wfd);
    }
};

} // namespace

namespace msg_test {
INSTANTIATE_TYPED_TEST_SUITE_P(Selfloop, TransportConformance, SelfloopTraits);
} // namespace msg_test

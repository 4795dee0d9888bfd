/* SPDX-License-Identifier: Apache-2.0 */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>
#include <unistd.h>

#include "c_api.h"
#include "velmar_sastox.h"

void check_udp(void)
{
    struct sockaddr_in sin;
    DM_ADDR_ST addr;
    DM_CB_ST *cb = NULL;
    DM_INTF_ST *intf = NULL;

    memset(&sin, 0, sizeof(sin));
    sin.sin_family = AF_INET;
    sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    memset(&addr, 0, sizeof(addr));
    addr.kind = DM_ADDR_KIND_UDP;
    addr.family = DM_ADDR_FAMILY_UDP;
    memcpy(addr.sa, &sin, sizeof(sin));

    CHECK(sizeof(DM_UDP_MSG_ST) == DM_UDP_FRAME_LEN && DM_UDP_FRAME_LEN == 4138);
    CHECK(dm_udp_init(NULL, NULL, NULL, &addr, NULL, 0) == 22);
    CHECK(dm_udp_init_intf(&intf, NULL, NULL, &addr, "udp", 33) == 22);
    CHECK(dm_init(&cb) == 0);
    if (cb != NULL) {
        CHECK(dm_udp_init(&intf, cb, NULL, &addr, "udp", 32) == 22);
        CHECK(dm_udp_init(&intf, cb, NULL, &addr, NULL, 0) == 0);
        CHECK(intf != NULL && intf->retry_cnt == 2 && intf->timeout_ms == 30000);
        CHECK(dm_udp_init(NULL, cb, NULL, &addr, NULL, 0) == 16);
        dm_destroy(cb);
    }
}

/* SPDX-License-Identifier: Apache-2.0 */
#include <string.h>

#include "c_api.h"
#include "velmar_sastox.h"

void check_ipc(void)
{
    char name[32];
    uint8_t byte = 0;
    uint32_t len = 0;
    DM_ADDR_ST hdc = {DM_ADDR_KIND_HDC, DM_ADDR_FAMILY_IPC, 0, 3, {0}};
    DM_DATA_ST data = {1, &byte};
    DM_CB_ST *cb = NULL;

    CHECK(dm_ipc_get_intf_name(3, name, sizeof(name)) == 0 && strcmp(name, "dm_ipc3") == 0);
    CHECK(dm_ipc_get_intf_name(3, name, 4) == 5);
    CHECK(sizeof(dm_ipc_recv_msg) == 32 && dm_ipc_recv_msg[0] == 0 && dm_ipc_recv_msg[31] == 0);
    CHECK(dm_ipc_init(NULL, NULL, NULL, NULL, NULL, 0) == 22);
    CHECK(__dm_ipc_send(NULL, DM_MSG_REQ, &hdc, DM_IPC_ADDR_LEN, &data, 0) == -22);
    CHECK(__dm_ipc_settime_send(NULL, DM_MSG_REQ, &hdc, DM_IPC_ADDR_LEN, &data, 0, 0, 0) == -22);
    CHECK(dm_init(&cb) == 0);
    if (cb != NULL) {
        CHECK(dm_ipc_init(NULL, cb, NULL, &hdc, NULL, 0) == 22);
        dm_destroy(cb);
    }

    CHECK(smbus_msg_send(-1, NULL, 1) == -22);
    CHECK(smbus_msg_send(-1, &byte, DM_SMBUS_MAX_DATA + 1) == -22);
    CHECK(smbus_msg_recv(-1, NULL, &len) == -22);
}

/* SPDX-License-Identifier: Apache-2.0 */
#include <stdatomic.h>

#include "c_api.h"
#include "dm_platform.h"
#include "velmar_sastox.h"

static int32_t c_echo(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user_data, uint32_t len)
{
    (void)user_data;
    (void)len;
    return dm_send_rsp(intf, msg->addr, msg->addr_len, &msg->data, msg->req_id);
}

static atomic_int c_answered; /* written on the poller thread */

static int32_t c_answer(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user_data, uint32_t len)
{
    (void)intf;
    (void)user_data;
    (void)len;
    if (msg->data.data_len == 2 && msg->data.data[0] == 'h' && msg->data.data[1] == 'i') {
        atomic_store(&c_answered, 1);
    }
    return 0;
}

void check_msg(void)
{
    DM_CB_ST *cb = NULL;
    DM_INTF_ST *loop;
    uint8_t text[2] = {'h', 'i'};
    DM_DATA_ST data = {2, text};
    void *user = NULL;
    int waited;

    CHECK(sizeof(DM_ADDR_ST) == 40);
    CHECK(sizeof(SELF_MSG_ST) == SELF_MSG_HEADER_LEN + DM_MAX_DATA_LEN);
    CHECK(dev_mon_get_log_flag() == 5);
    dev_mon_set_log_flag(7);
    CHECK(g_dev_mon_debug == 7);
    dev_mon_set_log_flag(5);
    CHECK(dm_init(NULL) == -22);
    CHECK(dm_init(&cb) == 0);
    if (cb == NULL) {
        return;
    }
    loop = dm_get_intf(cb, "selfloop", 9);
    CHECK(loop != NULL);
    CHECK(selfloop_init(NULL, cb, NULL, "selfloop", 0) == 16);
    CHECK(dm_cmd_register(cb, c_echo, NULL, NULL, 1) == 0);
    CHECK(dm_send_req(loop, &loop->addr, sizeof(DM_ADDR_ST), &data, c_answer, &user, sizeof(user)) == 0);
    for (waited = 0; waited < 5000 && !atomic_load(&c_answered); waited++) {
        mmSleep(1);
    }
    CHECK(atomic_load(&c_answered) == 1);
    CHECK(dm_send_req(loop, &loop->addr, 0, &data, NULL, &user, sizeof(user)) == DM_ERR_INVALID_ARG);
    CHECK(dm_cmd_deregister(cb) == 0);
    dm_destroy(cb);
}

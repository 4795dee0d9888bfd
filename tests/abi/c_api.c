/* SPDX-License-Identifier: Apache-2.0 */
/* Compiled as strict C11: proves that every exported header is valid C and that the
 * exported functions link from C. Each subsystem's calls live in c_api_<subsystem>.c. */
#include "c_api.h"

#include <string.h>

#include "velmar_sastox.h"

int c_api_failures;

/* The velmar_ extensions: small enough to live here. */
static void check_ext(void)
{
    const char *reading = velmar_strerror("dm_send_req", DM_ERR_SEND);
    CHECK(strcmp(velmar_version(), VELMAR_SASTOX_VERSION_STRING) == 0);
    CHECK(reading != NULL && strstr(reading, "DM_ERR_SEND") != NULL);
    CHECK(velmar_strerror(NULL, 0) != NULL);
    /* A refused call: nothing is sent, and dm_send_req's code comes back. */
    int sent = -1;
    CHECK(velmar_dm_call(NULL, NULL, 0, NULL, NULL, 0, NULL, &sent) == VELMAR_CALL_NOT_SENT);
    CHECK(sent == DM_ERR_INVALID_ARG);
    /* The record's size comes first; a record too short for a counter is refused. */
    VELMAR_DM_STATS stats;
    memset(&stats, 0, sizeof(stats));
    stats.size = sizeof(stats);
    CHECK(velmar_dm_get_stats(NULL, NULL, &stats) == -22);
    stats.size = sizeof(uint32_t);
    DM_CB_ST *cb = NULL;
    CHECK(dm_init(&cb) == 0);
    CHECK(velmar_dm_get_stats(cb, NULL, &stats) == -22);
    stats.size = sizeof(stats);
    CHECK(velmar_dm_get_stats(cb, "selfloop", &stats) == 0 && stats.size == sizeof(stats));
    CHECK(velmar_dm_get_stats(cb, "none", &stats) == -2);
    dm_destroy(cb);
}

int main(void)
{
    check_list();
    check_poller();
    check_msg();
    check_hash();
    check_queue();
    check_vos();
    check_ipc();
    check_udp();
    check_hdc();
    check_ext();
    if (c_api_failures == 0) {
        printf("c api: all checks passed\n");
    }
    return c_api_failures == 0 ? 0 : 1;
}

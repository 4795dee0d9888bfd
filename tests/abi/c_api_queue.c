/* SPDX-License-Identifier: Apache-2.0 */
#include "c_api.h"
#include "velmar_sastox.h"

#include <string.h>

void check_queue(void)
{
    uint32_t qid = 0;
    uint32_t ret = vos_private_queue_create("capi", 4, &qid, 10, 1);
    char out[6] = {0};
    CHECK(vos_private_queue_create(NULL, 4, &qid, 10, 1) == VOS_QUEUE_ERR_PARAM);
    CHECK(vos_queue_read(qid, 0, NULL, 1) == VOS_QUEUE_ERR_READ);
    /* Tagging the owner needs the rights to change it: without them creation reports 1. */
    CHECK(ret == 0 || ret == 1);
    if (ret != 0) {
        printf("c api: queue creation refused (no right to set the owner), rest skipped\n");
        return;
    }
    CHECK(vos_queue_asy_write(qid, "hello", 6) == 0);
    CHECK(vos_queue_read(qid, 50, out, 6) == VOS_QUEUE_ERR_TIMEOUT); /* below one 100 ms step */
    CHECK(vos_queue_asy_read(qid, out, 6) == 6 && strcmp(out, "hello") == 0);
    CHECK(vos_queue_asy_read(qid, out, 6) == 0xFFFFFFFFU);
    CHECK(vos_queue_delete(qid) == 0);
}

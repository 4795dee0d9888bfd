/* SPDX-License-Identifier: Apache-2.0 */
#include "c_api.h"
#include "velmar_sastox.h"

#include <stdlib.h>
#include <string.h>

static uint64_t c_thread_entry(uint64_t arg)
{
    return arg;
}

static void check_vos_locks(void)
{
    THREAD_TIMED_MUTEX_ST *sm = NULL;
    THREAD_TIMED_MUTEX_ST *rw = thread_timed_malloc_id();
    struct timespec ts;
    CHECK(vos_sm_bcreate("c-api-sem", 1, 0, &sm) == 0);
    CHECK(sm != NULL && strcmp(sm->name, "c-ap") == 0);
    CHECK(vos_sm_p(sm, 10) == 0);
    CHECK(vos_sm_p(sm, 10) == 0x20000203U);
    CHECK(vos_sm_v(sm) == 0);
    CHECK(vos_sm_delete(sm) == 0);
    CHECK(vos_sm_v(NULL) == 1);

    CHECK(rw != NULL);
    CHECK(thread_timed_mutex_init("rw", rw, 3, 0) == 0);
    CHECK(thread_timed_mutex_lock(rw, 1) == 0);       /* read */
    CHECK(thread_timed_mutex_trylock(rw, 0) == 0x20000204U); /* write while read-held */
    CHECK(thread_timed_mutex_unlock(rw) == 0);
    CHECK(thread_timed_mutex_destroy(rw) == 0);
    free(rw);

    get_abs_time(&ts, 1500);
    CHECK(ts.tv_nsec >= 0 && ts.tv_nsec < 1000000000L);
}

void check_vos(void)
{
    uint64_t tid_a = 0;
    uint64_t tid_b = 0;
    uint32_t task_no = 0;
    uint64_t args[4] = {0, 0, 0, 0};

    check_vos_locks();
    CHECK(osal_create_task("c-api", c_thread_entry, 256, 0, 0, 0, &tid_a, &tid_b) == 5);
    CHECK(osal_get_process_id() > 0);
    CHECK(osal_task_delay(0) == 0);
    CHECK(sizeof(VOS_TASK_CB_ST) == 440);
    CHECK(vos_create_task("c", &task_no, NULL, 1, 0, args) == 0x20000011U);
    CHECK(vos_check_task_idvalid(0) == 0);
    CHECK(vos_get_sys_task_id(1) == 0xFFFFFFFFU); /* no task table yet in this program */
}

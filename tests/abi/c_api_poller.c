/* SPDX-License-Identifier: Apache-2.0 */
#include "c_api.h"
#include "velmar_sastox.h"

static int ignore_fd(int fd, int revents, void *user_data, uint32_t user_data_len)
{
    (void)fd;
    (void)revents;
    (void)user_data;
    (void)user_data_len;
    return 0;
}

static int ignore_timer(uint32_t interval_ms, int32_t elapsed_ms, void *user_data,
                        uint32_t user_data_len)
{
    (void)interval_ms;
    (void)elapsed_ms;
    (void)user_data;
    (void)user_data_len;
    return 0;
}

/* The poller's exported steps: entries made and released without a poller, and the
 * clock arithmetic across a second boundary. */
static void check_poller_steps(void)
{
    POLLER_FD_ENTRY_ST *fd_entry = NULL;
    POLLER_TIMER_ENTRY_ST *timer_entry = NULL;
    POLLER_TIME_ST a = {5, 999999999};
    POLLER_TIME_ST b = {0, 0};
    POLLER_TIME_ST diff = {0, 0};

    CHECK(poller_init_entry(&fd_entry, 0, 1, ignore_fd) == 0 && fd_entry != NULL);
    poller_entry_free(fd_entry);
    CHECK(poller_timer_init_entry(&timer_entry, 60000, ignore_timer) == 0 && timer_entry != NULL);
    CHECK(timer_entry != NULL && poller_ms_until(timer_entry) > 59000);
    poller_entry_free(timer_entry);
    poller_time_add_ms(&b, &a, 1);
    CHECK(b.tv_sec == 6 && b.tv_nsec == 999999);
    CHECK(poller_time_cmp(&b, &a) == 1 && poller_time_cmp(&a, &b) == -1 && poller_time_cmp(&a, &a) == 0);
    CHECK(poller_time_diff_ms(&diff, &b, &a) == 1 && diff.tv_sec == 0 && diff.tv_nsec == 1000000);
    CHECK(poller_time_diff_ms(&diff, &a, &b) == -1);
    poller_time_sub_ms(&diff, &b, 1);
    CHECK(diff.tv_sec == a.tv_sec && diff.tv_nsec == a.tv_nsec);
}

/* Registration and removal on a poller that is never run; the handle is released at once. */
void check_poller(void)
{
    POLLER_ST *poller = NULL;
    void *timer = NULL;
    void *datum = &poller;

    CHECK(poller_create(NULL) == 22);
    CHECK(poller_run(NULL) == 22);
    CHECK(poller_destory(NULL) == 22);
    CHECK(poller_create(&poller) == 0);
    CHECK(poller_fd_add(poller, 0, 1, ignore_fd, &datum, 0) == 22);
    CHECK(poller_fd_add(poller, 0, 1, ignore_fd, &datum, (int32_t)sizeof(datum)) == 0);
    CHECK(poller_fd_remove(poller, 0, 1) == 0);
    CHECK(poller_timer_add(poller, 1000, ignore_timer, NULL, 0, &timer) == 22);
    CHECK(poller_timer_add(poller, 1000, ignore_timer, &datum, (int32_t)sizeof(datum), &timer) == 0);
    CHECK(timer != NULL);
    CHECK(poller_timer_entry_cmp(timer, timer) == 0);
    CHECK(poller_timer_deadline_cmp(timer, timer) == 0);
    CHECK(poller_timer_remove(poller, &timer) == 0);
    CHECK(poller_timer_remove(poller, NULL) == 22);
    CHECK(poller_destory(poller) == 0);
    check_poller_steps();
}

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
}

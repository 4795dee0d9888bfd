// SPDX-License-Identifier: Apache-2.0
// The poller's life cycle and its loop: creation with the self-notifier pipe, the poll
// thread, exit and destroy notices, and the release of everything at the end.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "common/dm_log.h"
#include "poller/poller_hooks.h"
#include "poller/poller_internal.h"

// The error-line limiter shared by every file of this unit.
DM_LOG_DEFINE_UNIT()

using namespace velmar::poller;

namespace {

constexpr int kPollThreadPriority = 60;
constexpr unsigned int kPollThreadStack = 131072;

void __poller_send_notice(POLLER_ST *poller, uint8_t notice)
{
    (void)mmWriteFile(poller->notify_fd[1], &notice, 1);
}

int __poller_recv_notice(int fd, int revents, void *user_data, uint32_t user_data_len)
{
    (void)user_data_len;
    POLLER_ST *poller = *static_cast<POLLER_ST **>(user_data);
    uint8_t notice = 0;
    if ((revents & POLLIN) != 0 && mmReadFile(fd, &notice, 1) < 0) {
        DM_LOG_ERR("read %u error\r\n", static_cast<unsigned>(notice));
    }
    if (notice == kNoticeExit) {
        store_state(poller, kExitRequested);
    } else if (notice == kNoticeDestroy) {
        store_state(poller, kDestroyRequested);
    }
    return 0;
}

// Logs as `writer`, the notifier's owner.
void __poller_close_notifier(POLLER_ST *poller, const char *writer)
{
    int ret_t = mmCloseFile(poller->notify_fd[0]);
    if (ret_t != 0) {
        DM_ASSERT_FAILED_AS(writer, "ret_t == 0");
    }
    ret_t = mmCloseFile(poller->notify_fd[1]);
    if (ret_t != 0) {
        DM_ASSERT_FAILED_AS(writer, "ret_t == 0");
    }
    poller->notify_fd[0] = -1;
    poller->notify_fd[1] = -1;
}

// errno of the first failing pipe/fcntl call, or the registration's code.
int __poller_self_notifier_init(POLLER_ST *poller)
{
    poller->notify_fd[0] = -1;
    poller->notify_fd[1] = -1;
    int ret = 0;
    if (pipe(poller->notify_fd) != 0) {
        ret = errno;
    }
    for (int i = 0; ret == 0 && i < 2; ++i) {
        if (fcntl(poller->notify_fd[i], F_SETFL, O_NONBLOCK) != 0) {
            ret = errno;
        }
    }
    for (int i = 0; ret == 0 && i < 2; ++i) {
        if (fcntl(poller->notify_fd[i], F_SETFD, FD_CLOEXEC) != 0) {
            ret = errno;
        }
    }
    if (ret == 0) {
        POLLER_ST *self = poller;
        ret = poller_fd_add(poller, poller->notify_fd[0], kPollIn, __poller_recv_notice, &self,
                            sizeof(self));
    }
    if (ret != 0 && poller->notify_fd[0] != -1) {
        __poller_close_notifier(poller, __func__);
    }
    return ret;
}

void __poller_free(POLLER_ST *poller)
{
    list_destroy(poller->fd_list);
    list_destroy(poller->timer_list);
    __poller_timer_index_destroy(poller);
    int ret = mmCloseFile(poller->notify_fd[0]);
    if (ret != 0) {
        DM_ASSERT_FAILED("ret == 0");
    }
    ret = mmCloseFile(poller->notify_fd[1]);
    if (ret != 0) {
        DM_ASSERT_FAILED("ret == 0");
    }
    free(poller);
}

// Releases the handle after a failed creation step and clears the caller's pointer.
int __poller_create_fail(POLLER_ST **out, POLLER_ST *poller, int ret)
{
    list_destroy(poller->fd_list);
    list_destroy(poller->timer_list);
    __poller_timer_index_destroy(poller);
    free(poller);
    *out = nullptr;
    return ret;
}

// The wait of one pass: 50 ms, or the time to the first timer when the descriptor list
// was loaded in full. A first timer that is already marked still counts. Another thread
// may remove and free that timer at any moment, so its deadline is read under a
// reference (never through list_first_item).
int __poller_wait_ms(POLLER_ST *poller, uint32_t loaded)
{
    constexpr int kNoTimer = static_cast<int>(kNoTimerWaitMs);
    if (list_is_empty(poller->timer_list) || list_size(poller->fd_list) != loaded) {
        return kNoTimer;
    }
    return __poller_first_timer_wait_ms(poller, kNoTimer);
}

void __poller_sweep_removed(LIST_ST *list)
{
    LIST_ITER_ST iter{};
    list_iter_init(list, &iter);
    while (LIST_NODE_ST *node = list_iter_next(&iter)) {
        // Both entry records keep `removed` at the same offset.
        auto *entry = static_cast<POLLER_FD_ENTRY_ST *>(list_to_item(node));
        if (is_marked(entry->removed)) {
            claim_and_remove(list, node, entry->removed);
        }
    }
    list_iter_destroy(&iter);
}

void __do_poll_free_resource(POLLER_ST *poller, struct pollfd *fds)
{
    const uint32_t state = load_state(poller);
    DM_LOG_WARN("do poll exit, poll state = %d\n", static_cast<int>(state));
    free(fds);
    std::atomic_ref<uint32_t>(poller->poll_tid_set).store(0, std::memory_order_release);
    if (state == kDestroyRequested) {
        const ExitHook hook = std::atomic_ref<ExitHook>(poller->exit_hook).load(std::memory_order_acquire);
        void *arg = std::atomic_ref<void *>(poller->exit_arg).load(std::memory_order_acquire);
        __poller_free(poller);
        if (hook != nullptr) {
            hook(arg);
        }
    } else if (state == kExitRequested) {
        store_state(poller, kIdle); // the last touch: the poller may be run again
    }
}

void *__do_poll(void *arg)
{
    auto *poller = static_cast<POLLER_ST *>(arg);
    (void)pthread_detach(pthread_self());
    (void)mmSetCurrentThreadName("do_poll");
    std::atomic_ref<pthread_t>(poller->poll_tid).store(pthread_self(), std::memory_order_relaxed);
    std::atomic_ref<uint32_t>(poller->poll_tid_set).store(1, std::memory_order_release);
    store_state(poller, kRunning);

    struct pollfd *fds = nullptr; // kept from pass to pass, only ever grown
    uint32_t nfds = 0;
    uint32_t size = 0;
    while (load_state(poller) == kRunning) {
        struct pollfd *watched = nullptr;
        uint32_t count = 0;
        if (!list_is_empty(poller->fd_list)) {
            __poller_load_fds(poller->fd_list, &fds, &nfds, &size);
            watched = fds;
            count = nfds;
        }
        const int wait_ms = __poller_wait_ms(poller, nfds);
        const int ret = poll(watched, count, wait_ms);
        if (ret > 0) {
            __poller_dispatch_fds(poller);
        } else if (ret < 0 && errno != EINTR) {
            DM_LOG_ERR("do poll failed, ret = %d, errno:%d\n", ret, errno);
            continue;
        }
        __poller_run_timers(poller);
        __poller_sweep_removed(poller->fd_list);
        __poller_sweep_timers(poller);
    }
    __do_poll_free_resource(poller, fds);
    return nullptr;
}

} // namespace

namespace velmar::poller {

bool on_poll_thread(POLLER_ST *poller)
{
    return std::atomic_ref<uint32_t>(poller->poll_tid_set).load(std::memory_order_acquire) != 0 &&
           pthread_equal(std::atomic_ref<pthread_t>(poller->poll_tid).load(std::memory_order_relaxed),
                         pthread_self()) != 0;
}

void set_exit_hook(POLLER_ST *poller, ExitHook hook, void *arg)
{
    std::atomic_ref<void *>(poller->exit_arg).store(arg, std::memory_order_release);
    std::atomic_ref<ExitHook>(poller->exit_hook).store(hook, std::memory_order_release);
}

} // namespace velmar::poller

extern "C" int poller_create(POLLER_ST **out)
{
    if (out == nullptr) {
        return 22;
    }
    auto *poller = static_cast<POLLER_ST *>(malloc(sizeof(POLLER_ST)));
    if (poller == nullptr) {
        *out = nullptr;
        return 12;
    }
    int ret = memset_s(poller, sizeof(*poller), 0, sizeof(*poller));
    if (ret != 0) {
        DM_LOG_ERR("memset_s fail!\n");
        free(poller);
        *out = nullptr;
        return ret;
    }
    *out = poller;
    ret = list_create(&poller->fd_list, poller_fd_entry_cmp, poller_entry_free);
    if (ret == 0) {
        ret = list_create(&poller->timer_list, poller_timer_entry_cmp, poller_entry_free);
    }
    if (ret == 0) {
        ret = __poller_timer_index_create(poller);
    }
    if (ret != 0) {
        return __poller_create_fail(out, poller, ret);
    }
    poller->owner_tid = pthread_self();
    poller->state = kIdle;
    ret = __poller_self_notifier_init(poller);
    if (ret != 0) {
        return __poller_create_fail(out, poller, ret);
    }
    return 0;
}

extern "C" int poller_run(POLLER_ST *poller)
{
    if (poller == nullptr) {
        return 22;
    }
    if (pthread_equal(pthread_self(), poller->owner_tid) == 0 || load_state(poller) != kIdle) {
        return 1;
    }
    mmUserBlock_t block{__do_poll, poller};
    const mmThreadAttr attr{0, 1, kPollThreadPriority, 1, SCHED_RR, 1, kPollThreadStack};
    int ret = mmCreateTaskWithThreadAttr(&poller->thread, &block, &attr);
    if (ret != 0) {
        DM_LOG_WARN("The system does not support ajusting sched priority, try using default "
                    "thread prority\n");
        ret = mmCreateTask(&poller->thread, &block);
    }
    return ret;
}

extern "C" int poller_exit(POLLER_ST *poller)
{
    if (pthread_equal(pthread_self(), poller->owner_tid) == 0) {
        return 1;
    }
    __poller_send_notice(poller, kNoticeExit);
    return 0;
}

extern "C" int poller_destory(POLLER_ST *poller)
{
    if (poller == nullptr) {
        return 22;
    }
    const uint32_t state = load_state(poller);
    if (state == kRunning) {
        __poller_send_notice(poller, kNoticeDestroy); // the poll thread releases it
    } else if (state == kIdle) {
        __poller_free(poller);
    }
    return 0;
}

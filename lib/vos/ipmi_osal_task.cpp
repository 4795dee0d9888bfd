// SPDX-License-Identifier: Apache-2.0
// Threads and priority attributes: every task thread of the OS layer starts here.
#include "vos_osal.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/select.h>
#include <unistd.h>

#include "common/dm_log.h"

// The exported counters keep their plain C type for outside readers; inside the library
// they are only touched through std::atomic_ref because threads bump them without a lock.
uint64_t g_creatthreadoknum = 0;
uint64_t g_creatthreadfailnum = 0;
uint32_t g_n_thread_count = 1;

namespace {

constexpr uint64_t kMaxPriority = 255;
constexpr int64_t kCreateOk = 0;
constexpr int64_t kCreateParaFail = 5;
constexpr int64_t kCreateNoMemory = -1;
constexpr int64_t kCreateThreadFail = 2;
constexpr uint64_t kNoThread = 0xFFFFFFFFU;
constexpr uint32_t kCancelOk = 0;
constexpr uint32_t kCancelNoThread = 1;
constexpr uint32_t kCancelFailed = 6;

void bump(uint64_t &counter)
{
    std::atomic_ref<uint64_t>(counter).fetch_add(1, std::memory_order_relaxed);
}

// Task look-ups of other threads read the thread identifier cells while we write them.
void publish_tid(uint64_t *cell, uint64_t value)
{
    std::atomic_ref<uint64_t>(*cell).store(value, std::memory_order_release);
}

// Attribute steps common to both sets, in the order the system expects them.
void init_explicit_attr(pthread_attr_t *attr, int policy)
{
    pthread_attr_init(attr);
    pthread_attr_setscope(attr, PTHREAD_SCOPE_SYSTEM);
    pthread_attr_setinheritsched(attr, PTHREAD_EXPLICIT_SCHED);
    pthread_attr_setschedpolicy(attr, policy);
}

// Scales 0..255 onto the SCHED_RR range; only the width of the range matters, so the
// lowest value is always 1. Integer arithmetic is signed 32-bit and truncating.
int32_t rr_priority_value(uint64_t priority)
{
    const int32_t min = sched_get_priority_min(SCHED_RR);
    const int32_t max = sched_get_priority_max(SCHED_RR);
    if (max == min) {
        return max;
    }
    const int32_t step = 2550 / (max - min);
    if (step == 0) { // a range wider than 2550 levels: no Linux system has one
        return max;
    }
    const auto scaled = static_cast<int32_t>(static_cast<uint32_t>(priority) * 10U);
    const int32_t value = scaled / step + 1;
    return value > max ? max : value;
}

bool valid_create_args(OSAL_TASK_ENTRY_FN entry, const uint64_t *out_tid_a, const uint64_t *out_tid_b)
{
    return entry != nullptr && out_tid_a != nullptr && out_tid_b != nullptr;
}

} // namespace

extern "C" {

uint32_t set_thread_attr_by_prio(uint64_t priority, pthread_attr_t *attr)
{
    (void)priority; // every normal thread runs at SCHED_OTHER priority 0
    if (attr == nullptr) {
        DM_LOG_ERR("%s::%d\n", __FILE__, __LINE__);
        return 1;
    }
    init_explicit_attr(attr, SCHED_OTHER);
    sched_param param{};
    param.sched_priority = 0;
    pthread_attr_setschedparam(attr, &param);
    pthread_attr_setdetachstate(attr, PTHREAD_CREATE_DETACHED);
    return 0;
}

uint32_t set_thread_attr_by_prio_preempt(uint64_t priority, pthread_attr_t *attr)
{
    if (attr == nullptr) {
        DM_LOG_ERR("%s::%d\n", __FILE__, __LINE__);
        return 1;
    }
    init_explicit_attr(attr, SCHED_RR);
    sched_param param{};
    param.sched_priority = rr_priority_value(priority);
    pthread_attr_setschedparam(attr, &param);
    pthread_attr_setdetachstate(attr, PTHREAD_CREATE_DETACHED);
    return 0;
}

int64_t osal_create_task(const char *name, OSAL_TASK_ENTRY_FN entry, uint64_t priority, int32_t flags,
                         uint64_t stack_size, uint64_t arg, uint64_t *out_tid_a, uint64_t *out_tid_b)
{
    pthread_attr_t attr{};
    uint32_t ul_return_code = 0;
    int64_t ret = kCreateOk;
    if (priority > kMaxPriority || !valid_create_args(entry, out_tid_a, out_tid_b)) {
        ret = kCreateParaFail;
    } else {
        ul_return_code = (flags & 1) != 0 ? set_thread_attr_by_prio_preempt(priority, &attr)
                                          : set_thread_attr_by_prio(priority, &attr);
        ret = ul_return_code != 0 ? kCreateParaFail : kCreateOk;
    }
    if (ret == kCreateParaFail) {
        DM_LOG_ERR("para fail,ret = %d,ul_return_code = %d,ul_priority = %ld\n", static_cast<int>(ret),
                   static_cast<int>(ul_return_code), static_cast<long>(priority));
        return kCreateParaFail;
    }
    pthread_attr_setstacksize(&attr, stack_size); // too small: the default stays

    auto *record = static_cast<OSAL_TASK_PARA_ST *>(malloc(sizeof(OSAL_TASK_PARA_ST)));
    if (record == nullptr) {
        DM_LOG_ERR("malloc fail\n");
        pthread_attr_destroy(&attr);
        return kCreateNoMemory;
    }
    if (memset_s(record, sizeof(*record), 0, sizeof(*record)) != 0) {
        DM_LOG_ERR("memset_s fail\n");
        pthread_attr_destroy(&attr);
        free(record);
        return kCreateNoMemory;
    }
    record->entry = entry;
    record->arg = arg;
    record->name = name;

    pthread_t tid{};
    if (pthread_create(&tid, &attr, test_task, record) != 0) {
        publish_tid(out_tid_a, kNoThread);
        publish_tid(out_tid_b, kNoThread);
        bump(g_creatthreadfailnum);
        DM_LOG_ERR("pthread_create fail, errno=%d:%s\n", errno, strerror(errno));
        pthread_attr_destroy(&attr);
        free(record);
        return kCreateThreadFail;
    }
    pthread_attr_destroy(&attr);
    bump(g_creatthreadoknum);
    publish_tid(out_tid_a, static_cast<uint64_t>(tid));
    publish_tid(out_tid_b, static_cast<uint64_t>(tid));
    return kCreateOk;
}

void *test_task(void *record)
{
    auto *para = static_cast<OSAL_TASK_PARA_ST *>(record);
    prctl(PR_SET_NAME, reinterpret_cast<unsigned long>(para->name), 0UL, 0UL, 0UL);
    uint64_t result = 0;
    // A cancelled thread never returns from its entry: the clean-up still frees the record.
    pthread_cleanup_push(free, record);
    result = para->entry(para->arg);
    pthread_cleanup_pop(1);
    return reinterpret_cast<void *>(result);
}

uint32_t osal_delete_task(uint64_t thread)
{
    if (pthread_cancel(static_cast<pthread_t>(thread)) == 0) {
        return kCancelOk;
    }
    // errno, not the returned number, decides: callers have always relied on this reading.
    return errno == ESRCH ? kCancelNoThread : kCancelFailed;
}

uint64_t osal_get_self_id(void)
{
    return static_cast<uint64_t>(pthread_self());
}

int32_t osal_get_process_id(void)
{
    return getpid();
}

uint32_t osal_task_lock(void)
{
    return 0;
}

uint32_t osal_task_unlock(void)
{
    return 0;
}

uint32_t osal_task_delay(uint64_t ms)
{
    timeval tv{};
    tv.tv_sec = static_cast<int64_t>(ms) / 1000;
    tv.tv_usec = static_cast<suseconds_t>((ms % 1000U) * 1000U);
    select(1, nullptr, nullptr, nullptr, &tv); // a signal shortens the sleep; that is accepted
    return 0;
}

} // extern "C"

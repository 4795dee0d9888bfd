// SPDX-License-Identifier: Apache-2.0
// The SPL lock (the task layer's critical section), wall-clock deadlines for timed waits,
// and binary semaphores on top of the timed-lock record.
#include "vos_sm.h"

#include <atomic>
#include <cstdlib>
#include <sys/time.h>

#include "common/dm_log.h"
#include "vos/vos_lock_codes.h"

// Zero-filled storage is a valid default mutex on glibc, so a lock taken before
// task_task_info_init does not crash; initialisation still happens there.
pthread_mutex_t g_task_splmutex = PTHREAD_MUTEX_INITIALIZER;
uint64_t sm_threadid = 0;

namespace {

constexpr uint32_t kSmNull = 1;
constexpr uint32_t kSmNoMemory = 2;
constexpr uint64_t kLevelLocked = 1;
constexpr uint64_t kLevelNotLocked = 0;
constexpr uint64_t kMsPerSecond = 1000;
constexpr uint64_t kNsPerMs = 1000000;
constexpr uint64_t kNsPerSecond = 1000000000;

} // namespace

extern "C" {

void vos_spl_init(pthread_mutex_t *mutex)
{
    if (mutex == nullptr) {
        return;
    }
    if (pthread_mutex_init(mutex, nullptr) != 0) {
        DM_LOG_ERR("pthread_mutex_init failed.\n");
    }
}

uint64_t vos_spl_imp(pthread_mutex_t *mutex)
{
    if (mutex == nullptr) {
        return kLevelNotLocked;
    }
    if (pthread_mutex_lock(mutex) != 0) {
        DM_LOG_ERR("pthread_mutex_lock failed. \n");
        return kLevelNotLocked;
    }
    return kLevelLocked;
}

void vos_splx(uint64_t level, pthread_mutex_t *mutex)
{
    if (mutex == nullptr || level != kLevelLocked) {
        return;
    }
    // Any mutex may be passed, so two threads can get here at once under different locks:
    // the exported word is written through atomic_ref to keep that free of data races.
    std::atomic_ref<uint64_t>(sm_threadid).store(0, std::memory_order_relaxed);
    if (pthread_mutex_unlock(mutex) != 0) {
        DM_LOG_ERR("pthread_mutex_unlock failed .\n");
    }
}

void get_abs_time(struct timespec *ts, uint64_t ms)
{
    if (ts == nullptr) {
        return;
    }
    timeval now{};
    gettimeofday(&now, nullptr);
    const uint64_t ns = static_cast<uint64_t>(now.tv_usec) * 1000U + (ms % kMsPerSecond) * kNsPerMs;
    ts->tv_nsec = static_cast<long>(ns % kNsPerSecond);
    ts->tv_sec = static_cast<time_t>(static_cast<uint64_t>(now.tv_sec) + ms / kMsPerSecond + ns / kNsPerSecond);
}

uint32_t vos_sm_bcreate(const char *name, uint32_t initial_count, uint32_t flags, THREAD_TIMED_MUTEX_ST **out_sm)
{
    (void)flags;
    THREAD_TIMED_MUTEX_ST *sm = thread_timed_malloc_id();
    if (sm == nullptr) {
        return kSmNoMemory;
    }
    *out_sm = sm; // before initialisation: after a failure the caller deletes the record
    return thread_timed_mutex_init(name, sm, velmar::vos::kTypeBinary, static_cast<int32_t>(initial_count));
}

uint32_t vos_sm_delete(THREAD_TIMED_MUTEX_ST *sm)
{
    if (sm == nullptr) {
        return kSmNull;
    }
    thread_timed_mutex_destroy(sm);
    free(sm);
    return 0;
}

uint32_t vos_sm_p(THREAD_TIMED_MUTEX_ST *sm, uint32_t timeout_ms)
{
    if (sm == nullptr) {
        return kSmNull;
    }
    return thread_timed_mutex_lock(sm, timeout_ms);
}

uint32_t vos_sm_v(THREAD_TIMED_MUTEX_ST *sm)
{
    if (sm == nullptr) {
        DM_LOG_ERR("\r\nSM_V failed, sm_id=NULL.");
        return kSmNull;
    }
    return thread_timed_mutex_unlock(sm);
}

} // extern "C"

/* SPDX-License-Identifier: Apache-2.0 */
// Helpers shared by the OS-layer test programs: a latch, scheduling privileges and
// timed-lock records.
#pragma once

#include <pthread.h>
#include <sched.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <vector>

#include "support/log_capture.h"
#include "support/waiting.h"
#include "vos_sm.h"

namespace velmar::vostest {

using namespace velmar::test;
using namespace std::chrono_literals;

// A one-shot latch that tests open to let their threads or tasks go on.
class Gate {
public:
    void open()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        cv_.notify_all();
    }
    void wait() { (void)wait_for(std::chrono::hours(24)); }
    bool wait_for(std::chrono::milliseconds limit = 10s)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return cv_.wait_for(lock, limit, [this] { return open_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    bool open_ = false;
};

// Whether this thread may start SCHED_RR threads, asked the way the library asks.
inline bool can_start_sched_rr()
{
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setinheritsched(&attr, PTHREAD_EXPLICIT_SCHED);
    pthread_attr_setschedpolicy(&attr, SCHED_RR);
    sched_param param{};
    param.sched_priority = 1;
    pthread_attr_setschedparam(&attr, &param);
    pthread_t thread;
    const int rc = pthread_create(&thread, &attr, [](void *) -> void * { return nullptr; }, nullptr);
    if (rc == 0) {
        pthread_join(thread, nullptr);
    }
    pthread_attr_destroy(&attr);
    return rc == 0;
}

// A timed-lock record made and released by the test (null when the set-up failed).
class LockRecord {
public:
    LockRecord(int32_t type, int32_t initial_count, const char *name = "test") : m_(thread_timed_malloc_id())
    {
        if (m_ != nullptr && thread_timed_mutex_init(name, m_, type, initial_count) != 0) {
            free(m_);
            m_ = nullptr;
        }
    }
    ~LockRecord()
    {
        if (m_ != nullptr) {
            thread_timed_mutex_destroy(m_);
            free(m_);
        }
    }
    LockRecord(const LockRecord &) = delete;
    LockRecord &operator=(const LockRecord &) = delete;
    THREAD_TIMED_MUTEX_ST *get() const { return m_; }

private:
    THREAD_TIMED_MUTEX_ST *m_;
};

// The fields of a type 0-2 record, read under its mutex.
struct LockState {
    int32_t count = 0;
    int32_t wait_num = 0;
    uint32_t nest_num = 0;
    uint32_t locked = 0;
    pthread_t owner = 0;
    std::vector<uint64_t> waiters;
};

inline LockState snapshot(THREAD_TIMED_MUTEX_ST *m)
{
    pthread_mutex_lock(&m->mutex);
    LockState s{m->count, m->wait_num, m->nest_num, m->locked, m->owner, {}};
    for (const THREAD_WAITER_NODE_ST *node = m->pwater_list; node != nullptr; node = node->next) {
        s.waiters.push_back(node->tid);
    }
    pthread_mutex_unlock(&m->mutex);
    return s;
}

} // namespace velmar::vostest

// Helpers shared by the OS-layer test programs: a latch, scheduling privileges, and
// timed-lock records.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "support/waiting.h"
#include "vos_sm.h"

namespace velmar::vostest {

using namespace velmar::test;

// A one-shot latch that tests open to let their threads or tasks go on.
class Gate {
public:
    void open();
    void wait();
    bool wait_for(std::chrono::milliseconds limit);

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    bool open_ = false;
};

// Whether this thread may start SCHED_RR threads, asked the way the library asks.
bool can_start_sched_rr();
// Capabilities are per thread: drops CAP_SYS_NICE from the calling thread only, so that a
// privileged test run can still see how the library behaves without the privilege.
void drop_sched_privilege_of_this_thread();

// A timed-lock record made and released by the test (types 0-2 or 3).
class LockRecord {
public:
    LockRecord(int32_t type, int32_t initial_count, const char *name = "test");
    ~LockRecord();
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
LockState snapshot(THREAD_TIMED_MUTEX_ST *m);

} // namespace velmar::vostest

// Helpers shared by the OS-layer test programs: a steerable wall clock (the library reads
// it through gettimeofday, which this program replaces), capture of the device log, and
// small waiting aids.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "vos_sm.h"

namespace velmar::vostest {

// gettimeofday in this program returns the real time plus an offset, or a fixed time.
void set_wall_offset_us(int64_t offset_us);
void set_fixed_wall_time(int64_t sec, int64_t usec); // until clear_fixed_wall_time()
void clear_fixed_wall_time();

// Moves the wall clock far ahead for the scope, beyond every earlier jump, so that the
// library's per-file error limiter (one line per 3 s) writes the next line. Only for
// actions that start no timed wait: deadlines are built from the same clock.
class ScopedLimiterBypass {
public:
    ScopedLimiterBypass();
    ~ScopedLimiterBypass();
    ScopedLimiterBypass(const ScopedLimiterBypass &) = delete;
    ScopedLimiterBypass &operator=(const ScopedLimiterBypass &) = delete;
};

// Collects every device log line while alive (instead of writing them out).
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    bool contains(const std::string &text) const;
    std::string dump() const;

private:
    static void sink(int level, const char *line, void *ctx);
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

// Polls `done` every millisecond until it holds or `limit` passes; returns its last answer.
bool wait_until(const std::function<bool()> &done, std::chrono::milliseconds limit);

// Milliseconds spent in `action`, on the monotonic clock.
int64_t elapsed_ms(const std::function<void()> &action);

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

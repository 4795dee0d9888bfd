/* SPDX-License-Identifier: Apache-2.0 */
// What the task-layer source files share: result codes, the free-value constants, atomic
// access to the control-block fields that threads touch without the SPL lock, and a
// scoped SPL guard.
#pragma once

#include <atomic>
#include <cstdint>

#include "vos_sm.h"
#include "vos_task.h"

namespace velmar::vos {

constexpr uint32_t kTaskOk = 0;
constexpr uint32_t kTaskBadId = 0x20000000;
constexpr uint32_t kTaskNoBlock = 0x20000001;
constexpr uint32_t kTaskNoMemory = 0x20000002;
constexpr uint32_t kTaskCreateFailed = 0x20000003;
constexpr uint32_t kTaskCancelFailed = 0x20000005;
constexpr uint32_t kTaskNoneLive = 0x20000006;
constexpr uint32_t kTaskNullParam = 0x20000011;
constexpr uint32_t kTaskNotFound = 0xFFFFFFFFU;
constexpr uint64_t kFreeWord = 0xFFFFFFFFU;
constexpr uint32_t kTaskTableSize = VOS_MAX_TASK_NUM + 1;

// Fields read by look-ups or written by a task's own clean-up without the SPL lock
// (`used`, `tid`, `pid`, `stack_frame`, the counters, `dispatching`) go through
// std::atomic_ref: the exported records keep their plain C layout, and the race detector
// sees ordered accesses. `used` is cleared last with release so that a creator that
// finds the block free (acquire) also sees the rest of the release.
template <typename T> T load_shared(const T &field)
{
    return std::atomic_ref<T>(const_cast<T &>(field)).load(std::memory_order_acquire);
}

template <typename T> void store_shared(T &field, T value)
{
    std::atomic_ref<T>(field).store(value, std::memory_order_release);
}

// One live task less, never below zero.
inline void decrement_live_tasks()
{
    std::atomic_ref<uint64_t> live(m_task_dyn_info[0]);
    uint64_t current = live.load(std::memory_order_relaxed);
    while (current != 0 && !live.compare_exchange_weak(current, current - 1, std::memory_order_relaxed)) {
    }
}

inline bool task_no_in_range(uint32_t task_no)
{
    return g_p_task_cb != nullptr && task_no <= g_basic_task_info.max_task_num;
}

inline bool task_in_use(uint32_t task_no)
{
    return task_no_in_range(task_no) && load_shared(g_p_task_cb[task_no].used) != 0;
}

// Holds the SPL lock for a scope; release() hands it back early (for paths where a
// callee has already released it, dismiss()).
class SplGuard {
public:
    SplGuard() : level_(vos_spl_imp(&g_task_splmutex)) {}
    ~SplGuard() { release(); }
    SplGuard(const SplGuard &) = delete;
    SplGuard &operator=(const SplGuard &) = delete;

    uint64_t level() const { return level_; }
    void release()
    {
        vos_splx(level_, &g_task_splmutex);
        level_ = 0;
    }
    void dismiss() { level_ = 0; }

private:
    uint64_t level_;
};

} // namespace velmar::vos

// SPDX-License-Identifier: Apache-2.0
// Task look-ups between task numbers, thread identifiers and per-task process numbers,
// and the small task-side helpers.
#include "vos_task.h"

#include "vos/vos_task_internal.h"
#include "vos_osal.h"

using namespace velmar::vos;

namespace {

uint32_t task_of_thread(uint64_t self)
{
    for (uint32_t task_no = 1; task_no_in_range(task_no); ++task_no) {
        if (load_shared(g_p_task_cb[task_no].tid) == self) {
            return task_no;
        }
    }
    return kTaskNotFound;
}

} // namespace

extern "C" {

// Scans without the SPL lock: a task asks this about itself, and only a deletion can take
// its block away while it runs; the number it answers was right at the moment of the scan.
uint32_t vos_get_current_task_id(void)
{
    const uint64_t self = osal_get_self_id();
    return self == kFreeWord ? kTaskNotFound : task_of_thread(self);
}

// Number and field are read in one critical section, so that a block released and filled
// by a newer task in between cannot lend its values to the caller.
uint64_t vos_get_current_pid(void)
{
    const uint64_t self = osal_get_self_id();
    if (self == kFreeWord) {
        return kFreeWord;
    }
    SplGuard spl;
    const uint32_t task_no = task_of_thread(self);
    return task_no == kTaskNotFound ? kFreeWord : static_cast<uint64_t>(load_shared(g_p_task_cb[task_no].pid));
}

uint64_t vos_get_sys_task_id(uint32_t task_no)
{
    const uint64_t self = osal_get_self_id();
    if (task_no == 0 && self == kFreeWord) {
        return kFreeWord;
    }
    SplGuard spl;
    if (task_no == 0) {
        task_no = task_of_thread(self); // under the lock for the same reason as above
        if (task_no == kTaskNotFound) {
            return kFreeWord;
        }
    }
    return task_in_use(task_no) ? load_shared(g_p_task_cb[task_no].tid) : kFreeWord;
}

uint32_t vos_check_task_idvalid(uint32_t task_no)
{
    SplGuard spl;
    return task_in_use(task_no) ? 1 : 0;
}

uint32_t vos_task_delay(uint64_t ms)
{
    osal_task_delay(ms);
    return 0;
}

// The counter is bumped without a lock by any creating thread, hence the atomic step.
int32_t vos_gen_pid_for_task(void)
{
    const uint32_t offset = std::atomic_ref<uint32_t>(g_n_thread_count).fetch_add(1, std::memory_order_relaxed);
    return static_cast<int32_t>(offset + static_cast<uint32_t>(g_n_local_process_id));
}

uint64_t get_stackframe(void)
{
    return 0;
}

uint32_t vos_task_is_dispatching(void)
{
    return load_shared(dispatching) != 0 ? 1 : 0;
}

} // extern "C"

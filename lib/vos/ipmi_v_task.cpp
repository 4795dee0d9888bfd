// SPDX-License-Identifier: Apache-2.0
// Task control blocks: the table, its set-up, task creation, the task thread's entry and
// deletion. Look-ups are in ipmi_v_task_query.cpp.
#include "vos_task.h"

#include <cstddef>
#include <cstdlib>
#include <pthread.h>

#include "common/dm_log.h"
#include "vos/vos_task_internal.h"
#include "vos_osal.h"

static_assert(offsetof(VOS_TASK_CB_ST, reserved_head) == 0);
static_assert(offsetof(VOS_TASK_CB_ST, used) == 16);
static_assert(offsetof(VOS_TASK_CB_ST, reserved_after_used) == 24);
static_assert(offsetof(VOS_TASK_CB_ST, name) == 32);
static_assert(offsetof(VOS_TASK_CB_ST, desc) == 62);
static_assert(offsetof(VOS_TASK_CB_ST, tid) == 120);
static_assert(offsetof(VOS_TASK_CB_ST, tid_copy) == 128);
static_assert(offsetof(VOS_TASK_CB_ST, pid) == 136);
static_assert(offsetof(VOS_TASK_CB_ST, reserved_after_pid) == 144);
static_assert(offsetof(VOS_TASK_CB_ST, pfn_local_task_entry) == 152);
static_assert(offsetof(VOS_TASK_CB_ST, args) == 160);
static_assert(offsetof(VOS_TASK_CB_ST, reserved_after_args) == 192);
static_assert(offsetof(VOS_TASK_CB_ST, prio) == 200);
static_assert(offsetof(VOS_TASK_CB_ST, prio_cur) == 208);
static_assert(offsetof(VOS_TASK_CB_ST, flags) == 216);
static_assert(offsetof(VOS_TASK_CB_ST, stack_size) == 224);
static_assert(offsetof(VOS_TASK_CB_ST, stack_size_cur) == 232);
static_assert(offsetof(VOS_TASK_CB_ST, stack_frame) == 240);
static_assert(offsetof(VOS_TASK_CB_ST, reserved_a) == 248);
static_assert(offsetof(VOS_TASK_CB_ST, reserved_b) == 312);
static_assert(offsetof(VOS_TASK_CB_ST, reserved_c) == 320);
static_assert(offsetof(VOS_TASK_CB_ST, reserved_d) == 328);
static_assert(offsetof(VOS_TASK_CB_ST, reserved_e) == 352);
static_assert(offsetof(VOS_TASK_CB_ST, reserved_f) == 360);
static_assert(offsetof(VOS_TASK_CB_ST, reserved_g) == 376);
static_assert(offsetof(VOS_TASK_CB_ST, reserved_tail) == 408);
static_assert(sizeof(VOS_TASK_CB_ST) == 440);
static_assert(sizeof(VOS_BASIC_TASK_INFO_ST) == 24);
static_assert(sizeof(VOS_TID2VID_ST) == 16);
static_assert(sizeof(g_basic_monitor_info) == 152);
static_assert(sizeof(m_ach_task_name) == 30);

VOS_BASIC_TASK_INFO_ST g_basic_task_info = {};
VOS_TASK_CB_ST *g_p_task_cb = nullptr;
uint64_t m_task_dyn_info[2] = {};
uint64_t *m_pul_task_prio_que = nullptr;
uint64_t m_ul_task_prio_que_len = 0;
VOS_TID2VID_ST *m_p_tid2vid = nullptr;
uint64_t m_ul_tid2vid_num = 0;
int32_t g_n_local_process_id = 0;
uint8_t dispatching = 0;
uint64_t g_ul_watch_dog_time = 0;
uint64_t g_basic_monitor_info[19] = {};
uint64_t g_ul_is_monitor_dead_cycle = 0;
uint32_t g_aui_fid_msg_to_task_no[256] = {};
uint64_t g_ul_switch_flag = 0;
char m_ach_task_name[30] = {};

using namespace velmar::vos;

namespace {

constexpr uint64_t kDefaultStackSize = 32768;
constexpr uint64_t kTaskArgTag = 0x10000;
constexpr uint64_t kTaskNoMask = 0xFFFF;
constexpr uint64_t kPreemptFlag = 1;
constexpr size_t kNameChars = sizeof(VOS_TASK_CB_ST::name) - 1;
constexpr size_t kDescChars = sizeof(VOS_TASK_CB_ST::desc) - 1;
constexpr uint32_t kDispatchPollMs = 10;

// Every word between `tid` and the tail gets its free value, in field order.
void write_free_words(VOS_TASK_CB_ST *block)
{
    store_shared(block->tid, kFreeWord);
    store_shared(block->tid_copy, kFreeWord);
    store_shared(block->pid, static_cast<int64_t>(kFreeWord));
    block->reserved_after_pid = 0;
    block->pfn_local_task_entry = nullptr;
    for (uint64_t &arg : block->args) {
        arg = 0;
    }
    block->reserved_after_args = 0;
    block->prio = 0;
    block->prio_cur = 0;
    block->flags = 1;
    block->stack_size = 0;
    block->stack_size_cur = 0;
    store_shared(block->stack_frame, uint64_t{0});
    for (uint64_t &word : block->reserved_a) {
        word = 0;
    }
    block->reserved_b = kFreeWord;
    block->reserved_c = 0;
    for (uint64_t &word : block->reserved_d) {
        word = 0;
    }
    block->reserved_e[0] = 0;
    block->reserved_e[1] = 1;
    for (uint64_t &word : block->reserved_g) {
        word = kFreeWord;
    }
}

void fill_task_fields(VOS_TASK_CB_ST *block, VOS_TASK_ENTRY_FN entry, uint64_t priority, const uint64_t *args,
                      uint64_t stack_size, uint64_t flags)
{
    for (size_t i = 0; i < 4; ++i) {
        block->args[i] = args[i];
    }
    block->prio = priority;
    block->prio_cur = priority;
    block->pfn_local_task_entry = entry;
    const uint64_t recorded_stack = stack_size == 0 ? kDefaultStackSize : stack_size;
    block->stack_size = recorded_stack;
    block->stack_size_cur = recorded_stack;
    block->flags = flags;
    block->reserved_head[0] = 0;
    block->reserved_head[1] = 0;
    block->reserved_after_used = 0;
    block->reserved_after_pid &= ~uint64_t{0xFFFFFFFFU};
    block->reserved_c = 0;
}

void free_side_tables()
{
    free(m_pul_task_prio_que);
    m_pul_task_prio_que = nullptr;
    free(g_p_task_cb);
    g_p_task_cb = nullptr;
}

bool alloc_side_tables()
{
    m_pul_task_prio_que = static_cast<uint64_t *>(calloc(VOS_MAX_TASK_NUM, sizeof(uint64_t)));
    if (m_pul_task_prio_que == nullptr) {
        return false;
    }
    for (uint32_t i = 0; i < VOS_MAX_TASK_NUM; ++i) {
        m_pul_task_prio_que[i] = kFreeWord;
    }
    m_ul_task_prio_que_len = 0;
    m_p_tid2vid = static_cast<VOS_TID2VID_ST *>(calloc(VOS_MAX_TASK_NUM, sizeof(VOS_TID2VID_ST)));
    if (m_p_tid2vid == nullptr) {
        return false;
    }
    for (uint32_t i = 0; i < VOS_MAX_TASK_NUM; ++i) {
        m_p_tid2vid[i].tid = kFreeWord;
        m_p_tid2vid[i].task_no = kFreeWord;
    }
    m_ul_tid2vid_num = 0;
    return true;
}

// What a starting task needs of its block, copied under the lock.
struct TaskStart {
    VOS_TASK_ENTRY_FN entry = nullptr;
    uint64_t args[4] = {};
    uint64_t flags = 0;
};

// Reads the block only while it still names this thread: a deletion before the start may
// have released it, and a newer task may fill it, whose entry must not run here twice.
// The stack frame is written here rather than first thing for the same reason.
TaskStart claim_own_block(uint32_t task_no, uint64_t self)
{
    TaskStart start;
    SplGuard spl;
    if (!task_in_use(task_no) || load_shared(g_p_task_cb[task_no].tid) != self) {
        return start;
    }
    VOS_TASK_CB_ST *block = &g_p_task_cb[task_no];
    store_shared(block->stack_frame, get_stackframe());
    start.entry = block->pfn_local_task_entry;
    for (size_t i = 0; i < 4; ++i) {
        start.args[i] = block->args[i];
    }
    start.flags = block->flags;
    return start;
}

void end_of_task(void *task_no)
{
    vos_task_clean_up_handler(static_cast<uint32_t *>(task_no));
}

void wait_for_dispatching()
{
    while (vos_task_is_dispatching() == 0) {
        osal_task_delay(kDispatchPollMs);
    }
}

} // namespace

extern "C" {

uint32_t task_task_info_init(void)
{
    store_shared(dispatching, uint8_t{1});
    g_basic_task_info.max_task_num = VOS_MAX_TASK_NUM;
    store_shared(m_task_dyn_info[0], uint64_t{0});
    store_shared(m_task_dyn_info[1], uint64_t{0});
    g_n_local_process_id = osal_get_process_id();
    vos_spl_init(&g_task_splmutex);
    SplGuard spl;
    g_p_task_cb = static_cast<VOS_TASK_CB_ST *>(calloc(kTaskTableSize, sizeof(VOS_TASK_CB_ST)));
    if (g_p_task_cb == nullptr) {
        return kTaskNoMemory;
    }
    init_task_cb();
    if (!alloc_side_tables()) {
        free_side_tables();
        return kTaskNoMemory;
    }
    return kTaskOk;
}

void init_task_cb(void)
{
    for (uint32_t task_no = 0; task_no < kTaskTableSize; ++task_no) {
        free_task_cb(task_no);
    }
}

void free_task_cb(uint32_t task_no)
{
    if (!task_no_in_range(task_no)) {
        return;
    }
    VOS_TASK_CB_ST *block = &g_p_task_cb[task_no];
    block->reserved_after_used = 0;
    if (memset_s(block->name, sizeof(block->name), 0, sizeof(block->name)) != 0) {
        DM_LOG_ERR("memset_s error\n");
    }
    block->desc[0] = '\0';
    write_free_words(block);
    if (memset_s(block->reserved_tail, sizeof(block->reserved_tail), 0, sizeof(block->reserved_tail)) != 0) {
        DM_LOG_ERR("memset_s error\n");
        return; // stays marked in use, so it is never handed out again
    }
    store_shared(block->used, uint32_t{0});
}

uint32_t search_free_tcb(void)
{
    for (uint32_t task_no = 1; task_no_in_range(task_no); ++task_no) {
        if (load_shared(g_p_task_cb[task_no].used) == 0) {
            return task_no;
        }
    }
    return kTaskNotFound;
}

uint32_t vos_init_task_info(const char *name, VOS_TASK_CB_ST **out_block, const char *desc, uint32_t task_no,
                            uint32_t *out_task_no, VOS_TASK_ENTRY_FN entry, uint64_t priority, const uint64_t *args,
                            uint64_t spl_level, uint64_t stack_size, uint64_t flags)
{
    VOS_TASK_CB_ST *block = &g_p_task_cb[task_no];
    *out_block = block;
    store_shared(block->used, uint32_t{1});
    *out_task_no = task_no;
    (void)strncpy_s(block->name, sizeof(block->name), name != nullptr ? name : "", kNameChars);
    if (desc == nullptr) {
        block->desc[0] = '\0';
    } else if (strncpy_s(block->desc, sizeof(block->desc), desc, kDescChars) != 0) {
        free_task_cb(task_no);
        *out_task_no = kTaskNotFound;
        vos_splx(spl_level, &g_task_splmutex);
        DM_LOG_ERR("strncpy_s error\n");
        return 1;
    }
    fill_task_fields(block, entry, priority, args, stack_size, flags);
    return kTaskOk;
}

uint32_t vos_create_task_ex(const char *name, const char *desc, uint32_t *out_task_no, VOS_TASK_ENTRY_FN entry,
                            uint64_t priority, uint64_t stack_size, const uint64_t *args, uint64_t flags)
{
    if (entry == nullptr || out_task_no == nullptr || args == nullptr) {
        return kTaskNullParam;
    }
    // Why one critical section from the search to the count: dropped around the thread
    // creation, the lock let others see a block in use whose thread id was not yet written
    // (a deletion then cancelled the free value as a thread), and let a task that ended at
    // once release its block before the late writes of its id, pid and live count landed.
    // The new task waits for this lock before it reads its block, so it cannot end first.
    SplGuard spl;
    const uint32_t task_no = search_free_tcb();
    if (task_no == 0 || task_no > VOS_MAX_TASK_NUM || priority >= 256) {
        return kTaskNoBlock;
    }
    VOS_TASK_CB_ST *block = nullptr;
    const uint32_t rc = vos_init_task_info(name, &block, desc, task_no, out_task_no, entry, priority, args,
                                           spl.level(), stack_size, flags);
    if (rc != 0) {
        spl.dismiss(); // the failing fill has released the lock
        DM_LOG_ERR("init task struct fail ret = %d\n", static_cast<int>(rc));
        return rc;
    }
    const int64_t created = osal_create_task(block->name, vos_task_entry, priority, static_cast<int32_t>(flags),
                                             stack_size, kTaskArgTag | task_no, &block->tid, &block->tid_copy);
    if (created != 0) {
        free_task_cb(task_no);
        *out_task_no = kTaskNotFound;
        return kTaskCreateFailed;
    }
    block->reserved_f[0] = 0;
    block->reserved_f[1] = 0;
    store_shared(block->pid, static_cast<int64_t>(vos_gen_pid_for_task()));
    std::atomic_ref<uint64_t>(m_task_dyn_info[0]).fetch_add(1, std::memory_order_relaxed);
    std::atomic_ref<uint64_t>(m_task_dyn_info[1]).fetch_add(1, std::memory_order_relaxed);
    return kTaskOk;
}

uint32_t vos_create_task(const char *name, uint32_t *out_task_no, VOS_TASK_ENTRY_FN entry, uint64_t priority,
                         uint64_t stack_size, const uint64_t *args)
{
    return vos_create_task_ex(name, nullptr, out_task_no, entry, priority, stack_size, args, 0);
}

uint32_t vos_create_task_preempt(const char *name, uint32_t *out_task_no, VOS_TASK_ENTRY_FN entry,
                                 uint64_t priority, uint64_t stack_size, const uint64_t *args)
{
    return vos_create_task_ex(name, nullptr, out_task_no, entry, priority, stack_size, args, 1);
}

uint64_t vos_task_entry(uint64_t arg)
{
    const uint64_t self = osal_get_self_id();
    if (self == kFreeWord) {
        (void)vos_delete_task(0);
    }
    uint32_t task_no = static_cast<uint32_t>(arg & kTaskNoMask);
    wait_for_dispatching();
    if (vos_check_task_idvalid(task_no) == 0) {
        (void)vos_delete_task(0); // task 0 is never in use: has no effect, the thread goes on
    }
    const TaskStart start = claim_own_block(task_no, self);
    if (start.entry == nullptr) {
        DM_LOG_ERR("%s,%d:pfn_local_task_entry is null ptr funtion!\r\n", __FILE__, __LINE__);
        (void)vos_delete_task(0);
        return 0;
    }
    if ((start.flags & kPreemptFlag) == 0) {
        osal_task_lock();
    }
    // The end of the task also runs when the entry is left by cancellation or thread exit,
    // so that no block stays in use naming a thread that is gone.
    pthread_cleanup_push(end_of_task, &task_no);
    start.entry(start.args[0], start.args[1], start.args[2], start.args[3]);
    pthread_cleanup_pop(1);
    return 0;
}

// Serialised with deletion and creation. A deletion that came first has already released
// the block and counted the task down, and the number may name a newer task by now: only
// the thread the block names releases it.
void vos_task_clean_up_handler(uint32_t *task_no)
{
    SplGuard spl;
    if (task_no == nullptr) {
        decrement_live_tasks();
        return;
    }
    if (!task_in_use(*task_no) || load_shared(g_p_task_cb[*task_no].tid) != osal_get_self_id()) {
        return;
    }
    decrement_live_tasks();
    free_task_cb(*task_no);
}

// Every step under the lock, so that deletion and the task's own end never both release
// the block or both count it down.
uint32_t vos_delete_task(uint32_t task_no)
{
    SplGuard spl;
    if (!task_in_use(task_no)) {
        return kTaskBadId;
    }
    if (load_shared(m_task_dyn_info[0]) == 0) {
        return kTaskNoneLive;
    }
    const uint64_t tid = load_shared(g_p_task_cb[task_no].tid);
    if (tid == kFreeWord) {
        return kTaskBadId; // a block kept in use after a failed clear names no thread
    }
    decrement_live_tasks();
    free_task_cb(task_no);
    // Cancelled before the lock goes: until then the thread cannot have passed its own end,
    // so `tid` still names it and not a newer thread that reuses the identifier.
    return osal_delete_task(tid) == 0 ? kTaskOk : kTaskCancelFailed;
}

} // extern "C"

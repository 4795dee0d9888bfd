#include "vos/vos_test_support.h"

#include <linux/capability.h>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>

namespace velmar::vostest {

void Gate::open()
{
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    cv_.notify_all();
}

void Gate::wait()
{
    std::unique_lock<std::mutex> lock(mutex_);
    cv_.wait(lock, [this] { return open_; });
}

bool Gate::wait_for(std::chrono::milliseconds limit)
{
    std::unique_lock<std::mutex> lock(mutex_);
    return cv_.wait_for(lock, limit, [this] { return open_; });
}

namespace {
void *empty_thread(void *)
{
    return nullptr;
}
} // namespace

bool can_start_sched_rr()
{
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setinheritsched(&attr, PTHREAD_EXPLICIT_SCHED);
    pthread_attr_setschedpolicy(&attr, SCHED_RR);
    sched_param param{};
    param.sched_priority = 1;
    pthread_attr_setschedparam(&attr, &param);
    pthread_t thread;
    const int rc = pthread_create(&thread, &attr, empty_thread, nullptr);
    if (rc == 0) {
        pthread_join(thread, nullptr);
    }
    pthread_attr_destroy(&attr);
    return rc == 0;
}

void drop_sched_privilege_of_this_thread()
{
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2]{};
    if (syscall(SYS_capget, &header, data) == 0) {
        data[CAP_SYS_NICE / 32].effective &= ~(1U << (CAP_SYS_NICE % 32));
        syscall(SYS_capset, &header, data);
    }
}

LockRecord::LockRecord(int32_t type, int32_t initial_count, const char *name) : m_(thread_timed_malloc_id())
{
    if (m_ != nullptr && thread_timed_mutex_init(name, m_, type, initial_count) != 0) {
        free(m_);
        m_ = nullptr;
    }
}

LockRecord::~LockRecord()
{
    if (m_ != nullptr) {
        thread_timed_mutex_destroy(m_);
        free(m_);
    }
}

LockState snapshot(THREAD_TIMED_MUTEX_ST *m)
{
    LockState state;
    pthread_mutex_lock(&m->mutex);
    state.count = m->count;
    state.wait_num = m->wait_num;
    state.nest_num = m->nest_num;
    state.locked = m->locked;
    state.owner = m->owner;
    for (const THREAD_WAITER_NODE_ST *node = m->pwater_list; node != nullptr; node = node->next) {
        state.waiters.push_back(node->tid);
    }
    pthread_mutex_unlock(&m->mutex);
    return state;
}

} // namespace velmar::vostest

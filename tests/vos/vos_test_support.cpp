#include "vos/vos_test_support.h"

#include <dlfcn.h>
#include <linux/capability.h>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <sys/time.h>

#include <atomic>
#include <cstdlib>
#include <thread>

#include "host_platform.h"

namespace velmar::vostest {

namespace {

std::atomic<int64_t> g_offset_us{0};
std::atomic<bool> g_fixed{false};
std::atomic<int64_t> g_fixed_sec{0};
std::atomic<int64_t> g_fixed_usec{0};
std::atomic<int64_t> g_bypass_count{0};
constexpr int64_t kBypassStepUs = 3600LL * 1000000; // an hour per bypass: far past 3 s

using GettimeofdayFn = int (*)(struct timeval *, void *);

GettimeofdayFn real_gettimeofday()
{
    static const auto fn = reinterpret_cast<GettimeofdayFn>(dlsym(RTLD_NEXT, "gettimeofday"));
    return fn;
}

} // namespace

void set_wall_offset_us(int64_t offset_us)
{
    g_offset_us.store(offset_us);
}

void set_fixed_wall_time(int64_t sec, int64_t usec)
{
    g_fixed_sec.store(sec);
    g_fixed_usec.store(usec);
    g_fixed.store(true);
}

void clear_fixed_wall_time()
{
    g_fixed.store(false);
}

ScopedLimiterBypass::ScopedLimiterBypass()
{
    set_wall_offset_us((g_bypass_count.fetch_add(1) + 1) * kBypassStepUs);
}

ScopedLimiterBypass::~ScopedLimiterBypass()
{
    set_wall_offset_us(0);
}

LogCapture::LogCapture()
{
    host_dlog_set_sink(&LogCapture::sink, this);
}

LogCapture::~LogCapture()
{
    host_dlog_set_sink(nullptr, nullptr);
}

void LogCapture::sink(int level, const char *line, void *ctx)
{
    (void)level;
    auto *self = static_cast<LogCapture *>(ctx);
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->lines_.emplace_back(line);
}

bool LogCapture::contains(const std::string &text) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto &line : lines_) {
        if (line.find(text) != std::string::npos) {
            return true;
        }
    }
    return false;
}

std::string LogCapture::dump() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    std::string out;
    for (const auto &line : lines_) {
        out += line;
        out += '\n';
    }
    return out;
}

bool wait_until(const std::function<bool()> &done, std::chrono::milliseconds limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= end) {
            return done();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

int64_t elapsed_ms(const std::function<void()> &action)
{
    const auto start = std::chrono::steady_clock::now();
    action();
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
}

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

// The library reads the wall clock (deadlines, log limiter) through this definition.
extern "C" int gettimeofday(struct timeval *__restrict tv, void *__restrict tz) __THROW
{
    using namespace velmar::vostest;
    if (g_fixed.load()) {
        tv->tv_sec = g_fixed_sec.load();
        tv->tv_usec = g_fixed_usec.load();
        return 0;
    }
    const int rc = real_gettimeofday()(tv, tz);
    const int64_t offset = g_offset_us.load();
    if (rc == 0 && offset != 0) {
        const int64_t us = static_cast<int64_t>(tv->tv_sec) * 1000000 + tv->tv_usec + offset;
        tv->tv_sec = us / 1000000;
        tv->tv_usec = us % 1000000;
    }
    return rc;
}

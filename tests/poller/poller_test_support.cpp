// SPDX-License-Identifier: Apache-2.0
#include "poller_test_support.h"

#include <dlfcn.h>
#include <sys/syscall.h>

#include <map>
#include <mutex>


namespace poller_test {
namespace {

std::atomic<bool> g_clock_frozen{false};
std::atomic<int64_t> g_frozen_ns{0};
std::mutex g_mutex; // guards the record below
std::map<int, std::pair<std::string, long>> g_closes;

} // namespace

mmThreadAttr g_last_thread_attr{};
std::atomic<bool> g_refuse_thread_attr{false};
std::atomic<bool> g_fail_close{false};

void freeze_clock(bool frozen)
{
    const mmTimespec now = mmGetTickCount();
    g_frozen_ns = now.tv_sec * 1000000000 + now.tv_nsec;
    g_clock_frozen = frozen;
}

std::string closed_by(int fd)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_closes.count(fd) != 0 ? g_closes[fd].first : "";
}

void drain(int fd)
{
    char buf[64];
    while (read(fd, buf, sizeof(buf)) > 0) {
    }
}

void PollerTest::destroy()
{
    const int write_end = poller_->notify_fd[1];
    const bool running = state() == velmar::poller::kRunning;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        g_closes.clear();
    }
    ASSERT_EQ(poller_destory(poller_), 0);
    poller_ = nullptr;
    ASSERT_TRUE(wait_until([&] { return !closed_by(write_end).empty(); }));
    if (running) { // closing the write end is the thread's last step before it frees
        std::unique_lock<std::mutex> lock(g_mutex);
        const std::string task = "/proc/self/task/" + std::to_string(g_closes[write_end].second);
        lock.unlock();
        ASSERT_TRUE(wait_until([&] { return access(task.c_str(), F_OK) != 0; }));
    }
}

} // namespace poller_test

using namespace poller_test;

extern "C" mmTimespec mmGetTickCount(void)
{
    static auto real = next_symbol<mmTimespec (*)(void)>("mmGetTickCount");
    const int64_t ns = g_frozen_ns;
    return g_clock_frozen ? mmTimespec{ns / 1000000000, ns % 1000000000} : real();
}

extern "C" int mmCreateTaskWithThreadAttr(mmThread *thread, const mmUserBlock_t *block,
                                          const mmThreadAttr *attr)
{
    static auto real = next_symbol<int (*)(mmThread *, const mmUserBlock_t *, const mmThreadAttr *)>(
        "mmCreateTaskWithThreadAttr");
    g_last_thread_attr = *attr;
    return g_refuse_thread_attr ? EPERM : real(thread, block, attr);
}

extern "C" int mmCloseFile(int fd)
{
    static auto real = next_symbol<int (*)(int)>("mmCloseFile");
    char name[32] = {};
    pthread_getname_np(pthread_self(), name, sizeof(name));
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        g_closes[fd] = {name, static_cast<long>(syscall(SYS_gettid))};
    }
    const int ret = real(fd);
    return g_fail_close ? -1 : ret;
}

#include "poller_test_support.h"

#include <dlfcn.h>
#include <sys/syscall.h>

#include <map>
#include <mutex>
#include <vector>

#include "host_platform.h"

namespace poller_test {
namespace {

thread_local int t_memset_skip = -1;
thread_local int t_memset_code = 0;
std::atomic<bool> g_clock_frozen{false};
std::atomic<int64_t> g_frozen_ns{0};
std::mutex g_mutex; // guards the two records below
std::map<int, std::pair<std::string, long>> g_closes;
std::vector<std::string> g_log_lines;

template <typename Fn> Fn next_symbol(const char *name)
{
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

} // namespace

mmThreadAttr g_last_thread_attr{};
std::atomic<bool> g_refuse_thread_attr{false};

void fail_memset(int skip, int code) { t_memset_skip = skip, t_memset_code = code; }

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

void start_log_capture()
{
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        g_log_lines.clear();
    }
    host_dlog_set_level(0);
    host_dlog_set_sink(
        [](int, const char *line, void *) {
            std::lock_guard<std::mutex> sink_lock(g_mutex);
            g_log_lines.emplace_back(line);
        },
        nullptr);
}

bool logged(const std::string &text)
{
    host_dlog_set_sink(nullptr, nullptr);
    host_dlog_set_level(-1);
    std::lock_guard<std::mutex> lock(g_mutex);
    for (const auto &line : g_log_lines) {
        if (line.find(text) != std::string::npos) {
            return true;
        }
    }
    return false;
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
    ASSERT_TRUE(wait_for([&] { return !closed_by(write_end).empty(); }));
    if (running) { // closing the write end is the thread's last step before it frees
        std::unique_lock<std::mutex> lock(g_mutex);
        const std::string task = "/proc/self/task/" + std::to_string(g_closes[write_end].second);
        lock.unlock();
        ASSERT_TRUE(wait_for([&] { return access(task.c_str(), F_OK) != 0; }));
    }
}

} // namespace poller_test

using namespace poller_test;

extern "C" int memset_s(void *dest, size_t dest_max, int c, size_t count)
{
    static auto real = next_symbol<int (*)(void *, size_t, int, size_t)>("memset_s");
    if (t_memset_skip >= 0 && t_memset_skip-- == 0) {
        return t_memset_code;
    }
    return real(dest, dest_max, c, count);
}

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
    return real(fd);
}

#include "poller_test_support.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <vector>

#include "host_platform.h"

namespace poller_test {
namespace {

thread_local int t_fail_kind = -1;
thread_local int t_fail_skip = 0;
thread_local int t_fail_code = 0;
std::atomic<bool> g_refuse_attr{false};
std::atomic<bool> g_clock_frozen{false};
std::atomic<int64_t> g_frozen_sec{0};
std::atomic<int64_t> g_frozen_nsec{0};

struct CloseRecord {
    std::string thread;
    long tid;
};
std::mutex g_close_mutex;
std::map<int, CloseRecord> g_closes;

std::mutex g_log_mutex;
std::vector<std::string> g_log_lines;

template <typename Fn> Fn next_symbol(const char *name)
{
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

bool injected(int kind, int *code)
{
    if (t_fail_kind != kind) {
        return false;
    }
    if (t_fail_skip-- > 0) {
        return false;
    }
    t_fail_kind = -1;
    *code = t_fail_code;
    return true;
}

void capture_line(int, const char *line, void *)
{
    std::lock_guard<std::mutex> lock(g_log_mutex);
    g_log_lines.emplace_back(line);
}

} // namespace

mmThreadAttr g_last_thread_attr{};

bool wait_for(const std::function<bool()> &done, std::chrono::milliseconds limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

void fail_mem_call(int kind, int skip, int code)
{
    t_fail_kind = kind;
    t_fail_skip = skip;
    t_fail_code = code;
}

void clear_mem_failure() { t_fail_kind = -1; }

void refuse_thread_attr(bool refuse) { g_refuse_attr = refuse; }

void clear_closes()
{
    std::lock_guard<std::mutex> lock(g_close_mutex);
    g_closes.clear();
}

std::string closed_by(int fd, long *tid)
{
    std::lock_guard<std::mutex> lock(g_close_mutex);
    auto it = g_closes.find(fd);
    if (it == g_closes.end()) {
        return "";
    }
    if (tid != nullptr) {
        *tid = it->second.tid;
    }
    return it->second.thread;
}

FrozenClock::FrozenClock()
{
    const mmTimespec now = mmGetTickCount();
    g_frozen_sec = now.tv_sec;
    g_frozen_nsec = now.tv_nsec;
    g_clock_frozen = true;
}

FrozenClock::~FrozenClock() { g_clock_frozen = false; }

LogCapture::LogCapture()
{
    {
        std::lock_guard<std::mutex> lock(g_log_mutex);
        g_log_lines.clear();
    }
    host_dlog_set_level(0);
    host_dlog_set_sink(capture_line, nullptr);
}

LogCapture::~LogCapture()
{
    host_dlog_set_sink(nullptr, nullptr);
    host_dlog_set_level(-1);
}

bool LogCapture::contains(const std::string &text) const
{
    std::lock_guard<std::mutex> lock(g_log_mutex);
    for (const auto &line : g_log_lines) {
        if (line.find(text) != std::string::npos) {
            return true;
        }
    }
    return false;
}

Pipe::Pipe()
{
    int fds[2];
    EXPECT_EQ(pipe2(fds, O_NONBLOCK), 0);
    rd = fds[0];
    wr = fds[1];
}

Pipe::~Pipe()
{
    close(rd);
    close(wr);
}

void Pipe::put(char byte) const { EXPECT_EQ(write(wr, &byte, 1), 1); }

void Pipe::drain() const
{
    char buf[64];
    while (read(rd, buf, sizeof(buf)) > 0) {
    }
}

void PollerTest::SetUp() { ASSERT_EQ(poller_create(&poller_), 0); }

void PollerTest::TearDown()
{
    if (poller_ != nullptr) {
        destroy();
    }
}

void PollerTest::start()
{
    ASSERT_EQ(poller_run(poller_), 0);
    ASSERT_TRUE(wait_for([this] { return state() == velmar::poller::kRunning; }));
}

void PollerTest::destroy()
{
    const int write_end = poller_->notify_fd[1];
    const bool running = state() == velmar::poller::kRunning;
    clear_closes();
    ASSERT_EQ(poller_destory(poller_), 0);
    poller_ = nullptr; // the handle is gone (or going) from here on
    long tid = 0;
    ASSERT_TRUE(wait_for([&] { return !closed_by(write_end, &tid).empty(); }));
    if (running) {
        // Closing the write end is the thread's last step before freeing the handle and
        // returning; once the thread is gone, nothing of the poller is left.
        const std::string task = "/proc/self/task/" + std::to_string(tid);
        ASSERT_TRUE(wait_for([&] { return access(task.c_str(), F_OK) != 0; }));
    }
}

} // namespace poller_test

using namespace poller_test;

extern "C" int memset_s(void *dest, size_t dest_max, int c, size_t count)
{
    static auto real = next_symbol<int (*)(void *, size_t, int, size_t)>("memset_s");
    int code = 0;
    return injected(0, &code) ? code : real(dest, dest_max, c, count);
}

extern "C" int memmove_s(void *dest, size_t dest_max, const void *src, size_t count)
{
    static auto real = next_symbol<int (*)(void *, size_t, const void *, size_t)>("memmove_s");
    int code = 0;
    return injected(1, &code) ? code : real(dest, dest_max, src, count);
}

extern "C" int mmCreateTaskWithThreadAttr(mmThread *thread, const mmUserBlock_t *block,
                                          const mmThreadAttr *attr)
{
    static auto real = next_symbol<int (*)(mmThread *, const mmUserBlock_t *, const mmThreadAttr *)>(
        "mmCreateTaskWithThreadAttr");
    g_last_thread_attr = *attr;
    return g_refuse_attr ? EPERM : real(thread, block, attr);
}

extern "C" int mmCloseFile(int fd)
{
    static auto real = next_symbol<int (*)(int)>("mmCloseFile");
    char name[32] = {};
    pthread_getname_np(pthread_self(), name, sizeof(name));
    {
        std::lock_guard<std::mutex> lock(g_close_mutex);
        g_closes[fd] = CloseRecord{name, static_cast<long>(syscall(SYS_gettid))};
    }
    return real(fd);
}

extern "C" mmTimespec mmGetTickCount(void)
{
    static auto real = next_symbol<mmTimespec (*)(void)>("mmGetTickCount");
    if (g_clock_frozen) {
        return mmTimespec{g_frozen_sec, g_frozen_nsec};
    }
    return real();
}

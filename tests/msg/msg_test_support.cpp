#include "msg_test_support.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/time.h>
#include <time.h>

#include <cstring>
#include <thread>

#include "host_platform.h"

namespace {

std::atomic<int64_t> g_clock_offset_ms{0};

struct Injection {
    bool armed = false;
    bool fired = false;
    int nth = -1;
    int code = 0;
    int calls[3] = {0, 0, 0};
    msg_test::MemFn fn = msg_test::MemFn::kMemset;
};
thread_local Injection t_injection;

// Only calls made by the core library count: the host layer uses these functions too
// (the log, for one), and a failure there would prove nothing about the library.
bool called_by_core(void *caller)
{
    static void *core_base = [] {
        Dl_info info{};
        return dladdr(reinterpret_cast<void *>(&dm_init), &info) != 0 ? info.dli_fbase : nullptr;
    }();
    Dl_info info{};
    return dladdr(caller, &info) != 0 && info.dli_fbase == core_base;
}

bool inject(msg_test::MemFn fn, void *caller, int *code)
{
    Injection &in = t_injection;
    if (!in.armed || !called_by_core(caller)) {
        return false;
    }
    int seen = in.calls[static_cast<int>(fn)]++;
    if (fn == in.fn && seen == in.nth) {
        in.fired = true;
        *code = in.code;
        return true;
    }
    return false;
}

} // namespace

// The interposers: each forwards to the host layer's function unless the injection strikes.
#define INTERPOSE(name, fn_kind, params, args)                                                     \
    int name params                                                                                \
    {                                                                                              \
        static auto next = reinterpret_cast<int(*) params>(dlsym(RTLD_NEXT, #name));               \
        int code = 0;                                                                              \
        return inject(msg_test::MemFn::fn_kind, __builtin_return_address(0), &code) ? code : next args; \
    }

extern "C" {

INTERPOSE(memset_s, kMemset, (void *dest, size_t dest_max, int c, size_t count), (dest, dest_max, c, count))
INTERPOSE(memcpy_s, kMemcpy, (void *dest, size_t dest_max, const void *src, size_t count),
          (dest, dest_max, src, count))
INTERPOSE(memmove_s, kMemmove, (void *dest, size_t dest_max, const void *src, size_t count),
          (dest, dest_max, src, count))

// The library's error rate limiter reads the wall clock through gettimeofday; tests move
// it on to open a fresh window instead of waiting three seconds.
int gettimeofday(struct timeval *__restrict tv, void *__restrict tz) noexcept
{
    (void)tz;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    int64_t us = now.tv_sec * 1000000LL + now.tv_nsec / 1000 + g_clock_offset_ms.load() * 1000;
    tv->tv_sec = us / 1000000;
    tv->tv_usec = us % 1000000;
    return 0;
}

} // extern "C"

namespace msg_test {

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

void fail_mem_call(MemFn fn, int nth, int code) { t_injection = Injection{true, false, nth, code, {}, fn}; }

void clear_mem_failure() { t_injection.armed = false; }

bool mem_failure_fired() { return t_injection.fired; }

LogCapture::LogCapture()
{
    g_clock_offset_ms += 4000;
    host_dlog_set_level(0);
    host_dlog_set_sink(sink, this);
}

LogCapture::~LogCapture()
{
    host_dlog_set_sink(nullptr, nullptr);
    host_dlog_set_level(-1);
}

void LogCapture::sink(int level, const char *line, void *ctx)
{
    (void)level;
    auto *self = static_cast<LogCapture *>(ctx);
    std::lock_guard<std::mutex> guard(self->mutex_);
    self->lines_.emplace_back(line);
}

bool LogCapture::contains(const std::string &text) const
{
    std::lock_guard<std::mutex> guard(mutex_);
    for (const auto &line : lines_) {
        if (line.find(text) != std::string::npos) {
            return true;
        }
    }
    return false;
}

int open_fds()
{
    int n = 0;
    for (int fd = 0; fd < 1024; fd++) {
        n += fd_is_open(fd) ? 1 : 0;
    }
    return n;
}

bool fd_is_open(int fd) { return fcntl(fd, F_GETFD) != -1; }

Context::Context() { EXPECT_EQ(dm_init(&cb), 0); }

Context::~Context() { dm_destroy(cb); }

void Recorder::add(DM_INTF_ST *intf, const DM_MSG_ST *msg)
{
    std::lock_guard<std::mutex> guard(mutex);
    payloads.emplace_back(reinterpret_cast<const char *>(msg->data.data), msg->data.data_len);
    req_ids.push_back(msg->req_id);
    last_addr_len = msg->addr_len;
    last_intf = intf;
    calls++;
}

std::string Recorder::payload(size_t i)
{
    std::lock_guard<std::mutex> guard(mutex);
    return i < payloads.size() ? payloads[i] : std::string("<none>");
}

int32_t record_rsp(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user_data, uint32_t len)
{
    EXPECT_EQ(len, sizeof(Recorder *));
    (*static_cast<Recorder **>(user_data))->add(intf, msg);
    return 0;
}

DM_DATA_ST data_of(const std::string &text)
{
    return DM_DATA_ST{static_cast<uint16_t>(text.size()),
                      reinterpret_cast<uint8_t *>(const_cast<char *>(text.data()))};
}

DM_DATA_ST data_of(const char *literal)
{
    return DM_DATA_ST{static_cast<uint16_t>(strlen(literal)),
                      reinterpret_cast<uint8_t *>(const_cast<char *>(literal))};
}

int send_text(DM_INTF_ST *intf, const std::string &text, Recorder *rec)
{
    DM_DATA_ST data = data_of(text);
    return dm_send_req(intf, &intf->addr, sizeof(DM_ADDR_ST), &data, record_rsp, &rec, sizeof(rec));
}

} // namespace msg_test

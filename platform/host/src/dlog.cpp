// SPDX-License-Identifier: Apache-2.0
// The device log service of the host platform layer.
//
// The level and the output come from the environment, read once on first use. Each
// line is formatted completely in memory and then handed to the kernel with one write(),
// so that lines of different threads (and of processes sharing a VELMAR_LOG_FILE opened
// with O_APPEND) never interleave. Tests may divert lines to a sink instead.
#include <fcntl.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <strings.h>

#include "host_platform.h"

namespace {

constexpr int kLevelDebug = 0;
constexpr int kLevelError = 3;
constexpr int kLevelSilent = 4;
constexpr int kDefaultLevel = 2;
constexpr int kNoOverride = -1;

struct Config {
    int level = kDefaultLevel;
    int fd = STDERR_FILENO;
};

int parse_level(const char *text)
{
    if (text == nullptr || *text == '\0') {
        return kDefaultLevel;
    }
    struct Name {
        const char *name;
        int level;
    };
    static constexpr Name kNames[] = {{"debug", 0}, {"info", 1},    {"warn", 2},
                                      {"warning", 2}, {"error", 3}, {"0", 0},
                                      {"1", 1},     {"2", 2},       {"3", 3}};
    for (const Name &n : kNames) {
        if (strcasecmp(text, n.name) == 0) {
            return n.level;
        }
    }
    return kDefaultLevel; // an unknown value must not silence errors
}

// The log file stays open for the life of the process: lines may be written until the
// very end, from destructors and exiting threads, so there is no safe moment to close it.
int open_output(const char *path)
{
    if (path == nullptr || *path == '\0') {
        return STDERR_FILENO;
    }
    const int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    return fd >= 0 ? fd : STDERR_FILENO;
}

const Config &config()
{
    // A function-local static: the environment is read exactly once, thread-safely.
    static const Config cfg = [] {
        Config c;
        c.level = parse_level(std::getenv("VELMAR_LOG_LEVEL"));
        c.fd = open_output(std::getenv("VELMAR_LOG_FILE"));
        return c;
    }();
    return cfg;
}

std::atomic<int> g_level_override{kNoOverride};

// The sink and its context change together under the mutex; the flag lets the common
// case (no sink) skip the lock. Recursive so that a sink that logs does not dead-lock.
std::recursive_mutex g_sink_mutex;
host_dlog_sink_fn g_sink_fn = nullptr;
void *g_sink_ctx = nullptr;
std::atomic<bool> g_sink_set{false};

int effective_level()
{
    const int over = g_level_override.load(std::memory_order_relaxed);
    return over >= 0 ? over : config().level;
}

// Levels outside 0..3 do not exist: never enabled, so that level 4 silences everything.
bool level_enabled(int level)
{
    return level >= kLevelDebug && level <= kLevelError && level >= effective_level();
}

const char *level_name(int level)
{
    static constexpr const char *kNames[] = {"DEBUG", "INFO", "WARN", "ERROR"};
    return level >= kLevelDebug && level <= kLevelError ? kNames[level] : "?";
}

__attribute__((format(printf, 1, 0))) std::string format_message(const char *fmt, va_list args)
{
    if (fmt == nullptr) {
        return "(null format)";
    }
    char small[512];
    va_list copy;
    va_copy(copy, args);
    const int len = std::vsnprintf(small, sizeof small, fmt, copy);
    va_end(copy);
    if (len < 0) {
        return "(bad format)";
    }
    if (static_cast<size_t>(len) < sizeof small) {
        return std::string(small, static_cast<size_t>(len));
    }
    std::string big(static_cast<size_t>(len) + 1, '\0');
    std::vsnprintf(big.data(), big.size(), fmt, args);
    big.resize(static_cast<size_t>(len));
    return big;
}

// "2024-05-01 12:34:56.789 WARN 1234:1240 [10] " in local time.
std::string line_prefix(int level, int module_id)
{
    struct timeval tv {};
    gettimeofday(&tv, nullptr);
    struct tm tm_local {};
    localtime_r(&tv.tv_sec, &tm_local);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &tm_local);
    char prefix[128];
    std::snprintf(prefix, sizeof prefix, "%s.%03ld %s %ld:%ld [%d] ", stamp,
                  static_cast<long>(tv.tv_usec / 1000), level_name(level),
                  static_cast<long>(getpid()), static_cast<long>(syscall(SYS_gettid)),
                  module_id);
    return prefix;
}

void write_whole(int fd, const std::string &line)
{
    size_t done = 0;
    while (done < line.size()) {
        const ssize_t n = write(fd, line.data() + done, line.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break; // nowhere else to report it
        }
        done += static_cast<size_t>(n);
    }
}

// Returns true when a sink took the line.
bool deliver_to_sink(int level, const std::string &message)
{
    if (!g_sink_set.load(std::memory_order_acquire)) {
        return false;
    }
    std::lock_guard<std::recursive_mutex> lock(g_sink_mutex);
    if (g_sink_fn == nullptr) {
        return false;
    }
    g_sink_fn(level, message.c_str(), g_sink_ctx);
    return true;
}

__attribute__((format(printf, 3, 0))) void emit(int level, int module_id, const char *fmt,
                                                va_list args)
{
    if (!level_enabled(level)) {
        return;
    }
    const int saved_errno = errno; // logging must not disturb the caller's errno
    // A thread may be cancelled while it logs (a task being deleted). With cancellation
    // held off for the line, the line is written whole and the cancellation acts at the
    // caller's next cancellation point; acting inside write() or a sink, its unwinding
    // would be swallowed by the catch below, and the C library aborts the process.
    int cancel_state = PTHREAD_CANCEL_ENABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state);
    try {
        const std::string message = format_message(fmt, args);
        if (!deliver_to_sink(level, message)) {
            std::string line = line_prefix(level, module_id);
            line += message;
            if (line.back() != '\n') {
                line += '\n';
            }
            write_whole(config().fd, line);
        }
    } catch (...) {
        // Out of memory while logging: the line is lost, the caller must not be.
    }
    pthread_setcancelstate(cancel_state, nullptr);
    errno = saved_errno;
}

} // namespace

extern "C" {

int CheckLogLevel(int module_id, int level)
{
    (void)module_id; // the host has one level for all modules
    return level_enabled(level) ? 1 : 0;
}

#define DM_DLOG_DEFINE_(name, level)                                                           \
    void name(int module_id, const char *fmt, ...)                                             \
    {                                                                                          \
        va_list args;                                                                          \
        va_start(args, fmt);                                                                   \
        emit(level, module_id, fmt, args);                                                     \
        va_end(args);                                                                          \
    }

DM_DLOG_DEFINE_(DlogErrorInner, 3)
DM_DLOG_DEFINE_(DlogWarnInner, 2)
DM_DLOG_DEFINE_(DlogInfoInner, 1)
DM_DLOG_DEFINE_(DlogDebugInner, 0)

#undef DM_DLOG_DEFINE_

void host_dlog_set_sink(host_dlog_sink_fn fn, void *ctx)
{
    std::lock_guard<std::recursive_mutex> lock(g_sink_mutex);
    g_sink_fn = fn;
    g_sink_ctx = ctx;
    g_sink_set.store(fn != nullptr, std::memory_order_release);
}

void host_dlog_set_level(int level)
{
    const int value = level < 0 ? kNoOverride : (level > kLevelSilent ? kLevelSilent : level);
    g_level_override.store(value, std::memory_order_relaxed);
}

int host_dlog_get_level(void) { return effective_level(); }

} // extern "C"

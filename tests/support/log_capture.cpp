// SPDX-License-Identifier: Apache-2.0
#include "support/log_capture.h"

#include <sys/time.h>

#include <atomic>
#include <ctime>

#include "host_platform.h"

namespace velmar::test {

namespace {
std::atomic<int> g_bypasses{0};
std::atomic<int64_t> g_jumps{0};
std::atomic<int64_t> g_offset_us{0};
std::atomic<bool> g_fixed{false};
std::atomic<int64_t> g_fixed_us{0};
constexpr int64_t kJumpUs = 4'000'000; // more than the limiter's 3000 ms window
} // namespace

LimiterBypass::LimiterBypass() { g_bypasses.fetch_add(1); }
LimiterBypass::~LimiterBypass() { g_bypasses.fetch_sub(1); }

void set_wall_offset_us(int64_t offset_us) { g_offset_us.store(offset_us); }

void set_fixed_wall_time(int64_t sec, int64_t usec)
{
    g_fixed_us.store(sec * 1'000'000 + usec);
    g_fixed.store(true);
}

void clear_fixed_wall_time() { g_fixed.store(false); }

LogCapture::LogCapture(bool bypass_limiter)
{
    if (bypass_limiter) {
        bypass_.emplace();
    }
    host_dlog_set_level(0);
    host_dlog_set_sink(&LogCapture::sink, this);
}

LogCapture::~LogCapture()
{
    host_dlog_set_sink(nullptr, nullptr);
    host_dlog_set_level(-1);
}

void LogCapture::sink(int /*level*/, const char *line, void *ctx)
{
    auto *self = static_cast<LogCapture *>(ctx);
    std::lock_guard lock(self->mutex_);
    self->lines_.emplace_back(line);
}

std::vector<std::string> LogCapture::lines() const
{
    std::lock_guard lock(mutex_);
    return lines_;
}

bool LogCapture::contains(const std::string &text) const
{
    for (const auto &line : lines()) {
        if (line.find(text) != std::string::npos) {
            return true;
        }
    }
    return false;
}

size_t LogCapture::count_ending_with(const std::string &suffix) const
{
    size_t n = 0;
    for (const auto &line : lines()) {
        n += line.ends_with(suffix) ? 1 : 0;
    }
    return n;
}

std::string LogCapture::dump() const
{
    std::string out;
    for (const auto &line : lines()) {
        out += "  " + line + (line.ends_with('\n') ? "" : "\n");
    }
    return out.empty() ? "  (no lines)\n" : out;
}

} // namespace velmar::test

extern "C" int gettimeofday(struct timeval *__restrict tv, void *__restrict /*tz*/) __THROW
{
    using namespace velmar::test;
    int64_t us = g_fixed_us.load();
    if (!g_fixed.load()) {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        us = now.tv_sec * 1'000'000LL + now.tv_nsec / 1000 + g_offset_us.load();
        if (g_bypasses.load() > 0) {
            us += kJumpUs * (g_jumps.fetch_add(1) + 1);
        }
    }
    tv->tv_sec = us / 1'000'000;
    tv->tv_usec = us % 1'000'000;
    return 0;
}

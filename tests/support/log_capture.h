/* SPDX-License-Identifier: Apache-2.0 */
// Capture of the device log, and the wall clock that the library's per-file error rate
// limiter (one line per 3 s) and its timed semaphores read through gettimeofday, which
// this archive replaces.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace velmar::test {

// While one lives, every gettimeofday reading lies 4 s further ahead than the one before
// (and than real time), so the limiter writes every error line. Only around actions that
// start no timed wait: deadlines are built from the same clock.
class LimiterBypass {
public:
    LimiterBypass();
    ~LimiterBypass();
    LimiterBypass(const LimiterBypass &) = delete;
    LimiterBypass &operator=(const LimiterBypass &) = delete;
};

// Outside a bypass gettimeofday returns the real time plus an offset, or a fixed time.
void set_wall_offset_us(int64_t offset_us);
void set_fixed_wall_time(int64_t sec, int64_t usec); // until clear_fixed_wall_time()
void clear_fixed_wall_time();

// Collects every device-log line, of any level, while alive; by default it also keeps a
// LimiterBypass for its lifetime.
class LogCapture {
public:
    explicit LogCapture(bool bypass_limiter = true);
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    std::vector<std::string> lines() const;
    bool contains(const std::string &text) const;
    // Lines that end with `suffix` (the message after the prefix).
    size_t count_ending_with(const std::string &suffix) const;
    std::string dump() const; // for failure messages

private:
    static void sink(int level, const char *line, void *ctx);
    std::optional<LimiterBypass> bypass_;
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

} // namespace velmar::test

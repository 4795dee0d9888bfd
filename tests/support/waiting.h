/* SPDX-License-Identifier: Apache-2.0 */
// Waiting with generous bounds, timing an action, counting descriptors.
#pragma once

#include <fcntl.h>

#include <chrono>
#include <cstdint>
#include <thread>

namespace velmar::test {

using namespace std::chrono_literals;

// Polls `done` every millisecond until it holds or `limit` passes; returns its last answer.
template <typename Done> bool wait_until(Done &&done, std::chrono::milliseconds limit = 5s)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= end) {
            return done();
        }
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

// Milliseconds spent in `action`, on the monotonic clock.
template <typename Action> int64_t elapsed_ms(Action &&action)
{
    const auto start = std::chrono::steady_clock::now();
    action();
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start)
        .count();
}

inline bool fd_is_open(int fd) { return fcntl(fd, F_GETFD) != -1; }

// Open descriptors among the first 1024.
inline int open_fds()
{
    int n = 0;
    for (int fd = 0; fd < 1024; fd++) {
        n += fd_is_open(fd) ? 1 : 0;
    }
    return n;
}

} // namespace velmar::test

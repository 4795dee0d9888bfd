/* SPDX-License-Identifier: Apache-2.0 */
// Runs dmctl the way a user does: as a separate process, reading its output and exit
// status. Every test program gets one private simulator directory (set before any
// simulator call), which the dmctl processes inherit.
#ifndef DMCTL_RUNNER_H
#define DMCTL_RUNNER_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace dmctl_test {

struct Result {
    int status = -1; // exit status, or 128 + signal
    std::string out;
    std::string err;
};

// Runs `dmctl args...` to its end (killed after `timeout_ms`).
Result run(const std::vector<std::string> &args, int timeout_ms = 60000);

// A `dmctl args...` in the background, constructed once its standard output holds
// `wait_for` (or after 30 s, then not ready).
class Background {
public:
    Background(const std::vector<std::string> &args, const std::string &wait_for);
    ~Background();
    Background(const Background &) = delete;
    Background &operator=(const Background &) = delete;

    bool ready() const { return ready_; }
    pid_t pid() const { return pid_; }
    // What it printed so far.
    const Result &seen() const { return seen_; }
    // Reads its output until `text` is in its stdout or stderr; false after `timeout_ms`.
    bool wait_for(const std::string &text, int timeout_ms);
    // SIGTERM (or `sig`), then everything it printed and its exit status.
    Result stop(int sig = 15);

private:
    pid_t pid_ = -1;
    int out_fd_ = -1;
    int err_fd_ = -1;
    bool ready_ = false;

protected:
    Result seen_;
};

// A `dmctl serve ...` (text or --json) in the background, ready once constructed.
class Server : public Background {
public:
    explicit Server(const std::vector<std::string> &args);
    std::string udp() const { return udp_; } // "127.0.0.1:PORT" of its first --udp

private:
    std::string udp_;
};

// Sets VELMAR_HDC_DIR and VELMAR_DEVMGR_DIR to a fresh directory, once per process.
void use_private_simulator_dir();

} // namespace dmctl_test

#endif // DMCTL_RUNNER_H

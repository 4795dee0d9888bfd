// SPDX-License-Identifier: Apache-2.0
#include "child.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <mutex>
#include <set>

#include "output.h"

namespace dmctl {

namespace {

// The children running now, for stop_all().
std::mutex g_children_lock;
std::set<pid_t> g_children; // under g_children_lock

} // namespace

void Child::stop_all()
{
    std::lock_guard<std::mutex> guard(g_children_lock);
    for (const pid_t pid : g_children) {
        kill(pid, SIGTERM);
    }
    for (const pid_t pid : g_children) {
        while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
    g_children.clear();
}

Child::~Child()
{
    stop(nullptr);
}

std::string Child::start(const std::vector<std::string> &args)
{
    // Everything the child needs is prepared before fork: after it, only
    // async-signal-safe calls until exec.
    std::vector<std::string> words{"dmctl"};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (std::string &w : words) {
        argv.push_back(w.data());
    }
    argv.push_back(nullptr);
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        return std::string("pipe: ") + strerror(errno);
    }
    const pid_t pid = fork();
    if (pid < 0) {
        close(fds[0]);
        close(fds[1]);
        return std::string("fork: ") + strerror(errno);
    }
    if (pid == 0) {
        // The child starts with the signals it handles itself unblocked, whatever the
        // parent's thread blocked.
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        dup2(fds[1], STDOUT_FILENO);
        execv("/proc/self/exe", argv.data());
        _exit(127);
    }
    close(fds[1]);
    {
        std::lock_guard<std::mutex> guard(g_children_lock);
        g_children.insert(pid);
    }
    pid_ = pid;
    out_fd_ = fds[0];
    return {};
}

bool Child::read_some(int timeout_ms)
{
    pollfd pfd{out_fd_, POLLIN, 0};
    if (poll(&pfd, 1, timeout_ms) <= 0) {
        return true; // nothing yet
    }
    char chunk[4096];
    const ssize_t n = read(out_fd_, chunk, sizeof(chunk));
    if (n <= 0) {
        return false;
    }
    buffer_.append(chunk, static_cast<size_t>(n));
    return true;
}

bool Child::take_line(std::string &line)
{
    const size_t nl = buffer_.find('\n');
    if (nl == std::string::npos) {
        return false;
    }
    line = buffer_.substr(0, nl);
    buffer_.erase(0, nl + 1);
    return true;
}

bool Child::wait_for_line(const std::string &prefix, int timeout_ms,
                          std::vector<std::string> &lines)
{
    const int64_t deadline = now_ns() + static_cast<int64_t>(timeout_ms) * 1000000;
    for (;;) {
        std::string line;
        while (take_line(line)) {
            lines.push_back(line);
            if (line.rfind(prefix, 0) == 0) {
                return true;
            }
        }
        const int64_t left_ms = (deadline - now_ns()) / 1000000;
        if (out_fd_ < 0 || left_ms <= 0 || !read_some(static_cast<int>(left_ms))) {
            return false;
        }
    }
}

std::vector<std::string> Child::read_lines(int wait_ms)
{
    std::vector<std::string> lines;
    const int64_t deadline = now_ns() + static_cast<int64_t>(wait_ms) * 1000000;
    int64_t left_ms = wait_ms;
    while (out_fd_ >= 0 && left_ms > 0 && read_some(static_cast<int>(left_ms))) {
        left_ms = (deadline - now_ns()) / 1000000;
    }
    std::string line;
    while (take_line(line)) {
        lines.push_back(line);
    }
    return lines;
}

int Child::stop(std::vector<std::string> *tail)
{
    if (pid_ < 0) {
        return -1;
    }
    kill(pid_, SIGTERM);
    if (tail != nullptr) {
        wait_for_line("\x01never", 5000, *tail); // until the child closes its output
        if (!buffer_.empty()) {
            tail->push_back(buffer_);
        }
    }
    {
        std::lock_guard<std::mutex> guard(g_children_lock);
        g_children.erase(pid_);
    }
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    if (out_fd_ >= 0) {
        close(out_fd_);
        out_fd_ = -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace dmctl

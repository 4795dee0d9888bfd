// SPDX-License-Identifier: Apache-2.0
#include "dmctl_runner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <mutex>

namespace dmctl_test {

namespace {

int64_t now_ms()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

pid_t spawn(const std::vector<std::string> &args, int &out_fd, int &err_fd)
{
    std::vector<std::string> words{DMCTL_PATH};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (std::string &w : words) {
        argv.push_back(w.data());
    }
    argv.push_back(nullptr);
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
        return -1;
    }
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], 1);
        dup2(err[1], 2);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(out[1]);
    close(err[1]);
    out_fd = out[0];
    err_fd = err[0];
    return pid;
}

// Reads both pipes until `done` says so, they close, or the deadline passes.
template <typename Done> void pump(int &out_fd, int &err_fd, Result &r, int64_t deadline, Done done)
{
    while ((out_fd >= 0 || err_fd >= 0) && !done() && now_ms() < deadline) {
        pollfd fds[2] = {{out_fd, POLLIN, 0}, {err_fd, POLLIN, 0}};
        if (poll(fds, 2, static_cast<int>(deadline - now_ms())) <= 0) {
            continue;
        }
        int *fd_of[2] = {&out_fd, &err_fd};
        std::string *text_of[2] = {&r.out, &r.err};
        for (int i = 0; i < 2; ++i) {
            if (*fd_of[i] < 0 || fds[i].revents == 0) {
                continue;
            }
            char chunk[4096];
            const ssize_t n = read(*fd_of[i], chunk, sizeof(chunk));
            if (n > 0) {
                text_of[i]->append(chunk, static_cast<size_t>(n));
            } else {
                close(*fd_of[i]);
                *fd_of[i] = -1;
            }
        }
    }
}

int reap(pid_t pid)
{
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void close_fd(int &fd)
{
    if (fd >= 0) {
        close(fd);
        fd = -1;
    }
}

} // namespace

Result run(const std::vector<std::string> &args, int timeout_ms)
{
    use_private_simulator_dir();
    Result r;
    int out_fd = -1, err_fd = -1;
    const pid_t pid = spawn(args, out_fd, err_fd);
    if (pid < 0) {
        return r;
    }
    pump(out_fd, err_fd, r, now_ms() + timeout_ms, [] { return false; });
    if (out_fd >= 0 || err_fd >= 0) {
        kill(pid, SIGKILL); // overran its time
        close_fd(out_fd);
        close_fd(err_fd);
    }
    r.status = reap(pid);
    return r;
}

Background::Background(const std::vector<std::string> &args, const std::string &wait_for)
{
    use_private_simulator_dir();
    pid_ = spawn(args, out_fd_, err_fd_);
    if (pid_ < 0) {
        return;
    }
    // Sanitizer builds start slowly; 30 s is far beyond any normal start.
    pump(out_fd_, err_fd_, seen_, now_ms() + 30000,
         [&] { return seen_.out.find(wait_for) != std::string::npos; });
    ready_ = seen_.out.find(wait_for) != std::string::npos;
}

Background::~Background()
{
    if (pid_ > 0) {
        stop(SIGKILL);
    }
}

bool Background::wait_for(const std::string &text, int timeout_ms)
{
    auto seen = [&] {
        return seen_.out.find(text) != std::string::npos ||
               seen_.err.find(text) != std::string::npos;
    };
    pump(out_fd_, err_fd_, seen_, now_ms() + timeout_ms, seen);
    return seen();
}

Server::Server(const std::vector<std::string> &args)
    : Background([&args] {
          std::vector<std::string> words{"serve"};
          words.insert(words.end(), args.begin(), args.end());
          return words;
      }(),
                 "ready") // "ready (pid N)" or {"event":"ready",...}
{
    for (const std::string key : {"serving udp ", "\"endpoint\":\"udp "}) {
        if (size_t at = seen_.out.find(key); at != std::string::npos) {
            const size_t from = at + key.size();
            udp_ = seen_.out.substr(from, seen_.out.find_first_of("\n\"", from) - from);
            break;
        }
    }
}

Result Background::stop(int sig)
{
    if (pid_ > 0) {
        kill(pid_, sig);
        pump(out_fd_, err_fd_, seen_, now_ms() + 30000, [] { return false; });
        close_fd(out_fd_);
        close_fd(err_fd_);
        seen_.status = reap(pid_);
        pid_ = -1;
    }
    return seen_;
}

void use_private_simulator_dir()
{
    static std::once_flag once;
    std::call_once(once, [] {
        static char tmpl[] = "/tmp/dmctl-test-XXXXXX";
        if (mkdtemp(tmpl) != nullptr) {
            atexit([] {
                std::error_code ignored;
                std::filesystem::remove_all(tmpl, ignored);
            });
            setenv("VELMAR_HDC_DIR", (std::string(tmpl) + "/hdc").c_str(), 1);
            setenv("VELMAR_DEVMGR_DIR", (std::string(tmpl) + "/devmgr").c_str(), 1);
        }
    });
}

} // namespace dmctl_test

// SPDX-License-Identifier: Apache-2.0
// What the two-process benchmarks share: servers forked into processes of their own,
// each process pinned to its core, and the poller threads' scheduling policy for loops
// that must wake up as the framework's do.
#pragma once

#include <pthread.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>

namespace bench {

[[noreturn]] inline void die(const char *what)
{
    perror(what);
    _exit(1);
}

// Servers on the last core, clients on the first (on a one-core machine both share it).
inline void pin_to(bool server)
{
    const long cores = sysconf(_SC_NPROCESSORS_ONLN);
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(server && cores > 1 ? static_cast<int>(cores - 1) : 0, &set);
    (void)sched_setaffinity(0, sizeof(set), &set);
}

// The framework's poller threads run SCHED_RR at priority 60 where the process may ask
// for it; a baseline's loops get the same, so that both wake up alike.
inline void match_poller_policy()
{
    sched_param param{};
    param.sched_priority = 60;
    (void)pthread_setschedparam(pthread_self(), SCHED_RR, &param);
}

// A server in a child process: it reports its port through `report` and ends when its
// control pipe closes.
struct Server {
    pid_t pid;
    int control;
    uint16_t port;
};

inline Server start_server(void (*serve)(int report, int control))
{
    int report[2];
    int control[2];
    if (pipe(report) != 0 || pipe(control) != 0) {
        die("pipe");
    }
    pid_t pid = fork();
    if (pid == 0) {
        close(control[1]);
        serve(report[1], control[0]);
        _exit(0);
    }
    close(control[0]);
    close(report[1]);
    uint16_t port = 0;
    if (read(report[0], &port, sizeof(port)) != sizeof(port)) {
        die("server start");
    }
    close(report[0]);
    return {pid, control[1], port};
}

inline void stop_server(const Server &server)
{
    close(server.control);
    waitpid(server.pid, nullptr, 0);
}

} // namespace bench

// SPDX-License-Identifier: Apache-2.0
// The HDC simulator's shared machinery: directory, handles, faults, waiting, packets.
#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "hdc_sim_internal.h"
#include "sim_common.h"

namespace velmar::hostplat::hdc {

namespace {

// Indexed by Op.
sim::FaultTable<static_cast<size_t>(Op::Count)> g_faults({
    "drvHdcGetCapacity",    "drvHdcServerCreate", "drvHdcServerDestroy",
    "drvHdcSessionAccept",  "drvHdcClientCreate", "drvHdcClientDestroy",
    "drvHdcSessionConnect", "drvHdcSessionClose", "drvHdcSetSessionReference",
    "drvHdcAllocMsg",       "drvHdcFreeMsg",      "drvHdcAddMsgBuffer",
    "drvHdcGetMsgBuffer",   "halHdcSend",         "halHdcRecv",
    "halHdcGetSessionAttr"});

std::atomic<int32_t> g_run_env_override{-1};

int32_t env_run_env()
{
    const char *text = getenv(HOST_HDC_RUN_ENV_ENV);
    if (text == nullptr || text[0] == '\0') {
        return HOST_HDC_DEFAULT_RUN_ENV;
    }
    char *end = nullptr;
    const long value = strtol(text, &end, 10);
    return *end == '\0' ? static_cast<int32_t>(value) : HOST_HDC_DEFAULT_RUN_ENV;
}

} // namespace

const std::string &run_dir()
{
    static const std::string dir = sim::resolve_run_dir(HOST_HDC_DIR_ENV, "velmar-hdc");
    return dir;
}

int ensure_run_dir() { return sim::ensure_dir(run_dir()); }

std::string server_base(int dev_id, int service_type)
{
    return run_dir() + "/hdc-" + std::to_string(dev_id) + "-" + std::to_string(service_type);
}

int32_t announced_run_env()
{
    static const int32_t from_env = env_run_env();
    const int32_t chosen = g_run_env_override.load();
    return chosen >= 0 ? chosen : from_env;
}

Server::~Server()
{
    for (int fd : {listen_fd, wake_fd, lock_fd}) {
        if (fd >= 0) {
            close(fd);
        }
    }
}

Session::~Session()
{
    if (fd >= 0) {
        close(fd);
    }
    if (client != nullptr) {
        client->open_sessions.fetch_sub(1);
    }
}

uintptr_t next_handle()
{
    static std::atomic<uintptr_t> next{0x10000};
    return next.fetch_add(0x10);
}

Table<Server> &servers()
{
    static auto *table = new Table<Server>;
    return *table;
}

Table<Client> &clients()
{
    static auto *table = new Table<Client>;
    return *table;
}

Table<Session> &sessions()
{
    static auto *table = new Table<Session>;
    return *table;
}

bool take_fault(Op op, int &code) { return g_faults.take(static_cast<size_t>(op), code); }

int64_t now_ms()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int remaining_ms(int64_t deadline_ms)
{
    if (deadline_ms < 0) {
        return -1;
    }
    const int64_t left = deadline_ms - now_ms();
    return left > 0 ? static_cast<int>(left) : 0;
}

bool deadline_for(uint64_t flag, uint32_t timeout_ms, int64_t &deadline_ms)
{
    switch (flag) {
    case HOST_HDC_WAIT_FOREVER:
        deadline_ms = -1;
        return true;
    case HOST_HDC_NO_WAIT:
        deadline_ms = now_ms();
        return true;
    case HOST_HDC_WAIT_TIMEOUT:
        deadline_ms = now_ms() + timeout_ms;
        return true;
    default:
        return false;
    }
}

int wait_fd(int fd, short events, int64_t deadline_ms)
{
    for (;;) {
        pollfd pfd{fd, events, 0};
        const int ready = poll(&pfd, 1, remaining_ms(deadline_ms));
        if (ready > 0) {
            return 0; // ready, or hung up: the following call tells which
        }
        if (ready == 0) {
            return HOST_HDC_ERR_TIMEOUT;
        }
        if (errno != EINTR) {
            return HOST_HDC_ERR_IO;
        }
    }
}

int read_packet(Session &s, int64_t deadline_ms, std::vector<char> &out)
{
    for (;;) {
        int rc = wait_fd(s.fd, POLLIN, deadline_ms);
        if (rc != 0) {
            return rc;
        }
        // Zero-length packets are never sent, so 0 here is the end of the session.
        const ssize_t size = recv(s.fd, nullptr, 0, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT);
        if (size == 0 || (size < 0 && (errno == ECONNRESET || errno == ENOTCONN))) {
            return HOST_HDC_ERR_CLOSED;
        }
        if (size < 0) {
            if (errno == EAGAIN || errno == EINTR) {
                continue;
            }
            return HOST_HDC_ERR_IO;
        }
        out.assign(static_cast<size_t>(size), 0);
        if (recv(s.fd, out.data(), out.size(), MSG_DONTWAIT) != size) {
            return HOST_HDC_ERR_IO;
        }
        return 0;
    }
}

int take_hello(Session &s, int64_t deadline_ms)
{
    if (s.hello_done.load(std::memory_order_acquire)) {
        return 0;
    }
    std::vector<char> packet;
    int rc = read_packet(s, deadline_ms, packet);
    if (rc != 0) {
        return rc;
    }
    Hello hello{};
    if (packet.size() != sizeof(hello)) {
        return HOST_HDC_ERR_PROTO;
    }
    memcpy(&hello, packet.data(), sizeof(hello));
    if (hello.magic != kHelloMagic) {
        return HOST_HDC_ERR_PROTO;
    }
    s.run_env = hello.run_env;
    s.hello_done.store(true, std::memory_order_release);
    return 0;
}

} // namespace velmar::hostplat::hdc

using namespace velmar::hostplat::hdc;

extern "C" {

void host_hdc_set_run_env(int32_t run_env) { g_run_env_override.store(run_env < 0 ? -1 : run_env); }

int host_hdc_fail_next(const char *op, uint32_t count, int code)
{
    return g_faults.arm(op, count, code);
}

void host_hdc_fail_clear(void) { g_faults.clear(); }

uint32_t host_hdc_fail_pending(const char *op) { return g_faults.pending(op); }

uint64_t host_hdc_call_count(const char *op) { return g_faults.calls(op); }

const char *host_hdc_dir(void) { return run_dir().c_str(); }

} // extern "C"

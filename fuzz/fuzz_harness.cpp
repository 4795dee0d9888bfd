// SPDX-License-Identifier: Apache-2.0
#include "fuzz_harness.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "dm_hdc.h"
#include "dm_ipc.h"
#include "dm_udp.h"
#include "host_platform.h"

namespace fuzz {

namespace {

// On a heavily loaded machine the barrier has waited over 10 s for inputs that replay in
// milliseconds; a minute tells a hang from that. Waits over a second are reported.
constexpr int kSettleWaitMs = 60000;
constexpr int kSlowWaitMs = 1000;
constexpr int kSettleRounds = 100000;
constexpr uint32_t kSelfloopAddrLen = 6;

struct State {
    DM_CB_ST *cb = nullptr;
    DM_INTF_ST *selfloop = nullptr;
    std::vector<int> watched;
    int barrier[2] = {-1, -1}; // harness -> poller thread
    int done[2] = {-1, -1};    // poller thread -> harness: 1 drained, 0 not yet
    // Written by the poller thread while the harness waits in settle(), read after it.
    std::atomic<bool> setup{false};
    std::atomic<bool> live{false};
    std::atomic<uint64_t> live_id{0};
};

State &state()
{
    static State *s = new State;
    return *s;
}

void discard_line(int, const char *, void *) {}

// What every receive must deliver, whatever bytes came in.
uint32_t expected_addr_len(uint32_t kind)
{
    switch (kind) {
    case DM_ADDR_KIND_SELFLOOP:
        return kSelfloopAddrLen;
    case DM_ADDR_KIND_UDP:
        return DM_UDP_ADDR_LEN;
    case DM_ADDR_KIND_HDC:
        return DM_HDC_ADDR_LEN;
    default:
        return DM_IPC_ADDR_LEN;
    }
}

void check_message(const DM_INTF_ST *intf, const DM_MSG_ST *msg)
{
    check(msg->type == DM_MSG_REQ || msg->type == DM_MSG_RSP, "dispatched a message of another type");
    // The self-loop frame carries its address whole, so only the others vouch for it.
    check(intf->addr.kind == DM_ADDR_KIND_SELFLOOP || msg->addr->kind == intf->addr.kind,
          "sender address of another kind");
    check(msg->addr_len == expected_addr_len(intf->addr.kind), "unexpected addr_len");
    // UDP hands an announced length on as it stands (its copy is bounded); every other
    // transport must never claim more than the buffer holds.
    check(intf->addr.kind == DM_ADDR_KIND_UDP || msg->data.data_len <= DM_MAX_DATA_LEN,
          "data_len beyond the receive buffer");
}

bool is_hdc_client(const DM_INTF_ST *intf)
{
    DM_HDC_ADDR_ST own;
    memcpy(&own, &intf->addr, sizeof(own));
    return intf->addr.kind == DM_ADDR_KIND_HDC && own.role != DM_HDC_ROLE_SERVER;
}

// Answers every request with its own payload, as a simple daemon does. The request that
// the harness keeps pending arrives here too (through the self-loop) and is only noted.
// An HDC client never answers: its send would connect to a device that is not there.
int32_t answer(DM_INTF_ST *intf, DM_MSG_ST *msg, void *, uint32_t)
{
    check_message(intf, msg);
    State &s = state();
    if (s.setup.load()) {
        s.live_id.store(msg->req_id);
        return 0;
    }
    if (is_hdc_client(intf)) {
        return 0;
    }
    DM_DATA_ST rsp = msg->data;
    (void)dm_send_rsp(intf, msg->addr, msg->addr_len, &rsp, msg->req_id);
    return 0;
}

int32_t live_answered(DM_INTF_ST *intf, DM_MSG_ST *msg, void *, uint32_t)
{
    check_message(intf, msg);
    State &s = state();
    check(msg->req_id == s.live_id.load(), "response delivered to another request");
    s.live.store(false);
    return 0;
}

bool watched_quiet()
{
    for (int fd : state().watched) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 0) > 0) {
            return false;
        }
    }
    return true;
}

// Runs on the poller thread, so no receive of the watched descriptors is in progress.
int barrier_cb(int fd, int, void *, uint32_t)
{
    char byte = 0;
    while (read(fd, &byte, 1) == 1) {
    }
    const char drained = watched_quiet() ? 1 : 0;
    (void)!write(state().done[1], &drained, 1);
    return 0;
}

void make_pipe(int fds[2], bool nonblocking_read)
{
    check(pipe2(fds, O_CLOEXEC) == 0, "pipe");
    if (nonblocking_read) {
        check(fcntl(fds[0], F_SETFL, O_NONBLOCK) == 0, "fcntl");
    }
}

void build(State &s)
{
    host_dlog_set_sink(discard_line, nullptr);
    host_dlog_set_level(0); // every line is formatted, none is written
    check(dm_init(&s.cb) == 0, "dm_init");
    s.selfloop = dm_get_intf(s.cb, "selfloop", DM_INTF_NAME_LEN);
    check(s.selfloop != nullptr, "no self-loop interface");
    // The pending request must never time out: a time-out would complete it between
    // inputs and make a run depend on the clock.
    s.selfloop->set_retry(s.selfloop, -1, s.selfloop->timeout_ms);
    check(dm_cmd_register(s.cb, answer, nullptr, nullptr, 1) == 0, "dm_cmd_register");
    make_pipe(s.barrier, true);
    make_pipe(s.done, false);
    check(poller_fd_add(s.cb->poller, s.barrier[0], POLLIN, barrier_cb, nullptr, -1) == 0,
          "poller_fd_add");
    s.watched.push_back(s.selfloop->fd);
}

} // namespace

void check(bool ok, const char *what)
{
    if (!ok) {
        fprintf(stderr, "fuzz harness: %s\n", what);
        abort();
    }
}

DM_CB_ST *context()
{
    State &s = state();
    if (s.cb == nullptr) {
        build(s);
    }
    return s.cb;
}

DM_INTF_ST *selfloop()
{
    context();
    return state().selfloop;
}

void watch(int fd) { state().watched.push_back(fd); }

void settle()
{
    State &s = state();
    for (int round = 0; round < kSettleRounds; ++round) {
        const char byte = 'b';
        check(write(s.barrier[1], &byte, 1) == 1, "barrier write");
        pollfd p{s.done[0], POLLIN, 0};
        if (poll(&p, 1, kSlowWaitMs) == 0) {
            fprintf(stderr, "fuzz harness: the poller thread took over %d ms\n", kSlowWaitMs);
            check(poll(&p, 1, kSettleWaitMs) == 1, "the poller thread did not come back in a minute");
        }
        char drained = 0;
        check(read(s.done[0], &drained, 1) == 1, "barrier read");
        if (drained != 0) {
            return;
        }
    }
    check(false, "the watched descriptors never drained");
}

void patch_req_id(uint8_t *frame, size_t size, size_t offset)
{
    if (size < offset + sizeof(uint64_t)) {
        return;
    }
    uint64_t id = 0;
    memcpy(&id, frame + offset, sizeof(id));
    if (id != kLiveToken) {
        return;
    }
    State &s = state();
    if (!s.live.load()) {
        s.setup.store(true);
        s.live_id.store(0);
        DM_INTF_ST *loop = s.selfloop;
        uint8_t payload[] = {'l', 'i', 'v', 'e'};
        DM_DATA_ST data{sizeof(payload), payload};
        check(dm_send_req(loop, &loop->addr, kSelfloopAddrLen, &data, live_answered, nullptr, 1) == 0,
              "dm_send_req");
        settle();
        s.setup.store(false);
        check(s.live_id.load() != 0, "the pending request never arrived");
        s.live.store(true);
    }
    id = s.live_id.load();
    memcpy(frame + offset, &id, sizeof(id));
}

void private_dir(const char *env, const char *tag)
{
    std::string tmpl = std::string("/tmp/velmar-fuzz-") + tag + "-XXXXXX";
    check(mkdtemp(tmpl.data()) != nullptr, "mkdtemp");
    setenv(env, tmpl.c_str(), 1);
    static std::vector<std::string> *dirs = new std::vector<std::string>;
    dirs->push_back(tmpl);
    static const bool registered = [] {
        atexit([] {
            for (const std::string &dir : *dirs) {
                std::error_code ec;
                std::filesystem::remove_all(dir, ec);
            }
        });
        return true;
    }();
    (void)registered;
}

} // namespace fuzz

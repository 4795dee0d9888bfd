// SPDX-License-Identifier: Apache-2.0
// The HDC frame as a peer sends it: the fuzzer's first byte is the run environment that
// the peer announces, the rest is one packet sent on a fresh simulator session to a
// server interface. Its accept thread and session thread take the packet into the pipe,
// and the poller thread reads it, asks the session who sent it and dispatches it;
// requests are answered on the same session.
#include <dirent.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include "dm_hdc.h"
#include "fuzz_harness.h"
#include "host_hdc.h"

namespace {

constexpr size_t kReqIdOffset = 16;
constexpr int kServerNum = 1;
constexpr uint8_t kRunEnvs = 6; // 1 to 4 are known, 0 and 5 are not
constexpr int kWaitMs = 10000;
// Handles come from one counter of the simulator; the session that the server accepted
// for ours was numbered just before or after it.
constexpr uintptr_t kNeighbourhood = 64;

int32_t no_answer(DM_DATA_ST *, DM_DATA_ST *) { return 0; }

struct Peer {
    DM_INTF_ST *server = nullptr;
    HDC_CLIENT client = nullptr;
};

Peer &peer()
{
    static Peer *p = [] {
        fuzz::private_dir(HOST_HDC_DIR_ENV, "hdc-session");
        auto *made = new Peer;
        DM_HDC_ADDR_ST addr{};
        addr.kind = DM_ADDR_KIND_HDC;
        addr.family = DM_ADDR_FAMILY_HDC;
        addr.role = DM_HDC_ROLE_SERVER;
        addr.intf_num = kServerNum;
        fuzz::check(dm_hdc_init(&made->server, fuzz::context(), no_answer,
                                reinterpret_cast<DM_ADDR_ST *>(&addr), nullptr, 0) == 0,
                    "dm_hdc_init");
        fuzz::watch(made->server->fd);
        fuzz::check(drvHdcClientCreate(&made->client, 4, 0, 0) == 0, "drvHdcClientCreate");
        return made;
    }();
    return *p;
}

void send_packet(HDC_SESSION session, std::vector<uint8_t> &packet)
{
    drvHdcMsg *msg = nullptr;
    fuzz::check(drvHdcAllocMsg(session, &msg, 1) == 0, "drvHdcAllocMsg");
    fuzz::check(drvHdcAddMsgBuffer(msg, reinterpret_cast<char *>(packet.data()),
                                   static_cast<int>(packet.size())) == 0,
                "drvHdcAddMsgBuffer");
    fuzz::check(halHdcSend(session, msg, HOST_HDC_WAIT_TIMEOUT, kWaitMs) == 0, "halHdcSend");
    (void)drvHdcFreeMsg(msg);
}

// Every path of the server's session thread frees the message it received, and so does
// its answer: once the count has moved, the packet is in the pipe (or was refused).
void wait_for_session_thread(uint64_t frees_before)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
    while (host_hdc_call_count("drvHdcFreeMsg") < frees_before + 2) {
        fuzz::check(std::chrono::steady_clock::now() < end, "the session thread never took the packet");
        std::this_thread::sleep_for(std::chrono::microseconds(20));
    }
}

bool session_thread_alive()
{
    DIR *dir = opendir("/proc/self/task");
    fuzz::check(dir != nullptr, "opendir /proc/self/task");
    bool alive = false;
    while (const dirent *entry = readdir(dir)) {
        char path[64];
        snprintf(path, sizeof(path), "/proc/self/task/%s/comm", entry->d_name);
        FILE *comm = fopen(path, "re");
        if (comm == nullptr) {
            continue;
        }
        char name[32] = {0};
        alive = fgets(name, sizeof(name), comm) != nullptr &&
                strncmp(name, "server_recv_msg", 15) == 0;
        fclose(comm);
        if (alive) {
            break;
        }
    }
    closedir(dir);
    return alive;
}

// The thread ends right after its last free; none may overlap the next input.
void wait_until_no_session_thread()
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
    while (session_thread_alive()) {
        fuzz::check(std::chrono::steady_clock::now() < end, "a session thread never ended");
        std::this_thread::sleep_for(std::chrono::microseconds(20));
    }
}

void drain(HDC_SESSION session)
{
    for (;;) {
        drvHdcMsg *msg = nullptr;
        if (drvHdcAllocMsg(session, &msg, 1) != 0) {
            return;
        }
        int count = 0;
        const int rc = halHdcRecv(session, msg, 4096, HOST_HDC_NO_WAIT, &count, 0);
        (void)drvHdcFreeMsg(msg);
        if (rc != 0) {
            return;
        }
    }
}

// A frame that is not answered leaves the server's end of its session open (the answer
// would close it); a daemon under such traffic keeps a descriptor per frame. The harness
// closes it so that a long run does not run out of descriptors.
void close_server_end(HDC_SESSION ours)
{
    const auto base = reinterpret_cast<uintptr_t>(ours);
    for (uintptr_t h = base - kNeighbourhood; h <= base + kNeighbourhood; ++h) {
        auto *session = reinterpret_cast<HDC_SESSION>(h);
        if (h != base && drvHdcSetSessionReference(session) == 0) {
            (void)drvHdcSessionClose(session);
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Peer &p = peer();
    if (size < 2) {
        return 0; // the simulator sends no empty packet
    }
    host_hdc_set_run_env(data[0] % kRunEnvs);
    std::vector<uint8_t> packet(data + 1, data + size);
    fuzz::patch_req_id(packet.data(), packet.size(), kReqIdOffset);
    HDC_SESSION session = nullptr;
    fuzz::check(drvHdcSessionConnect(0, kServerNum, p.client, &session) == 0, "drvHdcSessionConnect");
    const uint64_t frees = host_hdc_call_count("drvHdcFreeMsg");
    send_packet(session, packet);
    wait_for_session_thread(frees);
    fuzz::settle();
    wait_until_no_session_thread();
    drain(session);
    close_server_end(session);
    (void)drvHdcSessionClose(session);
    return 0;
}

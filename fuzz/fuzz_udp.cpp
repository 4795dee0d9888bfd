// SPDX-License-Identifier: Apache-2.0
// The UDP datagram: the fuzzer's bytes go as one datagram from a peer socket to a UDP
// interface, whose poller thread receives, checks and dispatches it; requests are
// answered, responses matched with the pending request.
//
// Beyond the sanitizers it checks the round trip: a well-formed request comes back to
// the peer as one response frame carrying the same req_id and payload.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "dm_udp.h"
#include "fuzz_harness.h"

namespace {

constexpr size_t kReqIdOffset = 18;
constexpr size_t kTypeOffset = 10;
constexpr size_t kLenOffset = 8;

struct Udp {
    DM_INTF_ST *intf = nullptr;
    int peer = -1;
    sockaddr_in to{};
};

int32_t no_answer(DM_DATA_ST *, DM_DATA_ST *) { return 0; }

sockaddr_in loopback(uint16_t port)
{
    sockaddr_in sin{};
    sin.sin_family = AF_INET;
    sin.sin_port = htons(port);
    sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return sin;
}

Udp &udp()
{
    static Udp *u = [] {
        auto *made = new Udp;
        DM_ADDR_ST addr{};
        addr.kind = DM_ADDR_KIND_UDP;
        addr.family = DM_ADDR_FAMILY_UDP;
        const sockaddr_in any_port = loopback(0);
        memcpy(addr.sa, &any_port, sizeof(any_port));
        fuzz::check(dm_udp_init(&made->intf, fuzz::context(), no_answer, &addr, nullptr, 0) == 0,
                    "dm_udp_init");
        socklen_t len = sizeof(made->to);
        fuzz::check(getsockname(made->intf->fd, reinterpret_cast<sockaddr *>(&made->to), &len) == 0,
                    "getsockname");
        made->peer = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        const sockaddr_in own = loopback(0);
        fuzz::check(bind(made->peer, reinterpret_cast<const sockaddr *>(&own), sizeof(own)) == 0, "bind");
        fuzz::watch(made->intf->fd);
        return made;
    }();
    return *u;
}

template <typename T> T field(const uint8_t *frame, size_t offset)
{
    T value;
    memcpy(&value, frame + offset, sizeof(value));
    return value;
}

// What the interface must answer to `sent`, or nothing when it must not answer.
bool answer_expected(const std::vector<uint8_t> &sent)
{
    std::vector<uint8_t> frame(sent);
    frame.resize(DM_UDP_FRAME_LEN, 0); // what a short datagram reads as
    return !sent.empty() && field<uint16_t>(frame.data(), 6) == DM_UDP_MARKER &&
           field<uint16_t>(frame.data(), 4) == 0 &&
           field<uint32_t>(frame.data(), kTypeOffset) == DM_MSG_REQ &&
           field<uint16_t>(frame.data(), kLenOffset) <= DM_MAX_DATA_LEN;
}

void check_answer(const std::vector<uint8_t> &sent, const std::vector<uint8_t> &got)
{
    std::vector<uint8_t> req(sent);
    req.resize(DM_UDP_FRAME_LEN, 0);
    const auto len = field<uint16_t>(req.data(), kLenOffset);
    fuzz::check(got.size() == DM_UDP_FRAME_LEN, "answer is not a whole frame");
    fuzz::check(field<uint32_t>(got.data(), kTypeOffset) == DM_MSG_RSP, "answer is not a response");
    fuzz::check(field<uint64_t>(got.data(), kReqIdOffset) == field<uint64_t>(req.data(), kReqIdOffset),
                "answer carries another req_id");
    fuzz::check(field<uint16_t>(got.data(), kLenOffset) == len, "answer has another length");
    fuzz::check(memcmp(got.data() + DM_UDP_HEADER_LEN, req.data() + DM_UDP_HEADER_LEN, len) == 0,
                "answer has another payload");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Udp &u = udp();
    std::vector<uint8_t> frame(data, data + size);
    fuzz::patch_req_id(frame.data(), frame.size(), kReqIdOffset);
    const ssize_t sent = sendto(u.peer, frame.data(), frame.size(), 0,
                                reinterpret_cast<const sockaddr *>(&u.to), sizeof(u.to));
    fuzz::check(sent == static_cast<ssize_t>(frame.size()), "sendto");
    fuzz::settle();
    std::vector<uint8_t> got(DM_UDP_FRAME_LEN + 1);
    int answers = 0;
    for (;;) {
        const ssize_t n = recv(u.peer, got.data(), got.size(), 0);
        if (n < 0) {
            break;
        }
        got.resize(static_cast<size_t>(n));
        if (answers++ == 0 && answer_expected(frame)) {
            check_answer(frame, got);
        }
        got.resize(DM_UDP_FRAME_LEN + 1);
    }
    fuzz::check(answers == (answer_expected(frame) ? 1 : 0), "wrong number of answers");
    return 0;
}

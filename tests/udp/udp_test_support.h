/* SPDX-License-Identifier: Apache-2.0 */
// Shared by the UDP tests: loopback addresses, a plain datagram socket that plays the
// peer byte for byte, and the peer program (udp_peer) in a process of its own.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <chrono>
#include <cstring>
#include <string>

#include "dm_udp.h"

namespace udp_test {

using namespace std::chrono_literals;

// A UDP address record for 127.0.0.1:`port`.
inline DM_ADDR_ST loopback_addr(uint16_t port, uint32_t peer_id = 0)
{
    sockaddr_in sin{};
    sin.sin_family = AF_INET;
    sin.sin_port = htons(port);
    sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    DM_ADDR_ST addr{};
    addr.kind = DM_ADDR_KIND_UDP;
    addr.family = DM_ADDR_FAMILY_UDP;
    addr.peer_id = peer_id;
    memcpy(addr.sa, &sin, sizeof(sin));
    return addr;
}

inline uint16_t port_of(const DM_ADDR_ST &addr)
{
    sockaddr_in sin;
    memcpy(&sin, addr.sa, sizeof(sin));
    return ntohs(sin.sin_port);
}

// The port a socket is bound to, 0 if it cannot be told.
inline uint16_t bound_port(int fd)
{
    sockaddr_in sin{};
    socklen_t len = sizeof(sin);
    return getsockname(fd, reinterpret_cast<sockaddr *>(&sin), &len) == 0 ? ntohs(sin.sin_port) : 0;
}

// A well-formed frame as a peer would build it (ports 0).
DM_UDP_MSG_ST make_frame(uint32_t type, uint64_t req_id, const std::string &payload,
                         uint32_t peer_id = 0);

// A plain socket on 127.0.0.1 and an ephemeral port: sends any bytes, reads datagrams.
class RawPeer {
public:
    RawPeer();
    ~RawPeer();
    RawPeer(const RawPeer &) = delete;
    RawPeer &operator=(const RawPeer &) = delete;

    uint16_t port() const { return bound_port(fd_); }
    DM_ADDR_ST addr(uint32_t peer_id = 0) const { return loopback_addr(port(), peer_id); }
    void send(const void *bytes, size_t len, uint16_t to_port) const;
    void send(const DM_UDP_MSG_ST &frame, uint16_t to_port) const { send(&frame, sizeof(frame), to_port); }
    // The next datagram within `limit`: its length (a byte more than a frame shows as
    // such), or -1 when none came.
    ssize_t receive(DM_UDP_MSG_ST *frame, std::chrono::milliseconds limit = 5s,
                    sockaddr_in *from = nullptr) const;

private:
    int fd_;
};

// udp_peer in a process of its own; it ends with this object.
class PeerProcess {
public:
    PeerProcess();
    ~PeerProcess() { stop(); }
    PeerProcess(const PeerProcess &) = delete;
    PeerProcess &operator=(const PeerProcess &) = delete;

    uint16_t port() const { return port_; }
    // Closes its input and waits for it: its exit status, or -1.
    int stop();

private:
    pid_t pid_ = -1;
    int to_child_ = -1;
    uint16_t port_ = 0;
};

} // namespace udp_test

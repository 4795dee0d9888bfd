// SPDX-License-Identifier: Apache-2.0
#include "udp_test_support.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

extern char **environ;

namespace udp_test {

DM_UDP_MSG_ST make_frame(uint32_t type, uint64_t req_id, const std::string &payload, uint32_t peer_id)
{
    DM_UDP_MSG_ST frame{};
    frame.marker = DM_UDP_MARKER;
    frame.type = type;
    frame.req_id = req_id;
    frame.peer_id = peer_id;
    frame.data_len = static_cast<uint16_t>(payload.size());
    memcpy(frame.data, payload.data(), payload.size());
    return frame;
}

RawPeer::RawPeer() : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
{
    DM_ADDR_ST addr = loopback_addr(0);
    EXPECT_EQ(bind(fd_, reinterpret_cast<const sockaddr *>(addr.sa), sizeof(sockaddr_in)), 0);
}

RawPeer::~RawPeer() { close(fd_); }

void RawPeer::send(const void *bytes, size_t len, uint16_t to_port) const
{
    DM_ADDR_ST to = loopback_addr(to_port);
    EXPECT_EQ(sendto(fd_, bytes, len, 0, reinterpret_cast<const sockaddr *>(to.sa), sizeof(sockaddr_in)),
              static_cast<ssize_t>(len));
}

ssize_t RawPeer::receive(DM_UDP_MSG_ST *frame, std::chrono::milliseconds limit, sockaddr_in *from) const
{
    pollfd pfd{fd_, POLLIN, 0};
    if (poll(&pfd, 1, static_cast<int>(limit.count())) != 1) {
        return -1;
    }
    uint8_t buf[sizeof(DM_UDP_MSG_ST) + 1];
    sockaddr_in sender{};
    socklen_t len = sizeof(sender);
    ssize_t n = recvfrom(fd_, buf, sizeof(buf), 0, reinterpret_cast<sockaddr *>(&sender), &len);
    memcpy(frame, buf, std::clamp<ssize_t>(n, 0, sizeof(*frame)));
    if (from != nullptr) {
        *from = sender;
    }
    return n;
}

PeerProcess::PeerProcess()
{
    int in[2];
    int out[2];
    EXPECT_EQ(pipe2(in, O_CLOEXEC) | pipe2(out, O_CLOEXEC), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    char path[] = VELMAR_UDP_PEER;
    char *argv[] = {path, nullptr};
    EXPECT_EQ(posix_spawn(&pid_, path, &actions, nullptr, argv, environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    to_child_ = in[1];
    FILE *from_child = fdopen(out[0], "r");
    unsigned port = 0;
    EXPECT_EQ(fscanf(from_child, "port %u", &port), 1) << "the peer program did not start";
    fclose(from_child);
    port_ = static_cast<uint16_t>(port);
}

int PeerProcess::stop()
{
    if (pid_ < 0) {
        return -1;
    }
    close(to_child_);
    int status = 0;
    pid_t done = waitpid(pid_, &status, 0);
    pid_ = -1;
    return done > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace udp_test

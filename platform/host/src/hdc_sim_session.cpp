// SPDX-License-Identifier: Apache-2.0
// HDC clients and sessions of the simulator: connect with a hello, whole-packet send and
// receive with time-outs, close that wakes blocked callers, session attributes.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "hdc_sim_internal.h"
#include "sim_common.h"

using namespace velmar::hostplat::hdc;
namespace sim = velmar::hostplat::sim;

namespace {

// A connected socket to the server of (dev, svc), or a negative HOST_HDC_ERR_* value.
int connect_to_server(int dev_id, int service_type)
{
    sockaddr_un addr{};
    socklen_t len = 0;
    if (!sim::make_unix_addr(server_base(dev_id, service_type) + ".sock", addr, len)) {
        return -HOST_HDC_ERR_INVAL;
    }
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        return -HOST_HDC_ERR_IO;
    }
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), len) != 0) {
        const int err = errno;
        close(fd);
        // No name, a name without a listener (its server died) or a full backlog: the
        // server is not ready for us yet.
        const bool not_ready = err == ENOENT || err == ECONNREFUSED || err == EAGAIN;
        return not_ready ? -HOST_HDC_ERR_NO_SERVER : -HOST_HDC_ERR_IO;
    }
    return fd;
}

int send_hello(int fd, int32_t run_env)
{
    const Hello hello{kHelloMagic, run_env, static_cast<int32_t>(getpid())};
    if (send(fd, &hello, sizeof(hello), MSG_NOSIGNAL | MSG_DONTWAIT) != sizeof(hello)) {
        return HOST_HDC_ERR_CLOSED;
    }
    return 0;
}

int peer_uid(int fd, uint32_t &uid)
{
    ucred cred{};
    socklen_t len = sizeof(cred);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) {
        return HOST_HDC_ERR_IO;
    }
    uid = cred.uid;
    return 0;
}

std::vector<char> joined(const drvHdcMsg &msg)
{
    std::vector<char> bytes;
    for (const auto &buffer : msg.buffers) {
        bytes.insert(bytes.end(), buffer.bytes.begin(), buffer.bytes.begin() + buffer.length);
    }
    return bytes;
}

int send_packet(Session &s, const std::vector<char> &bytes, int64_t deadline_ms)
{
    for (;;) {
        const ssize_t sent = send(s.fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent == static_cast<ssize_t>(bytes.size())) {
            return 0;
        }
        if (errno == EPIPE || errno == ECONNRESET || errno == ENOTCONN) {
            return HOST_HDC_ERR_CLOSED;
        }
        if (errno == EMSGSIZE) {
            return HOST_HDC_ERR_TOO_BIG;
        }
        if (errno != EAGAIN && errno != EINTR) {
            return HOST_HDC_ERR_IO;
        }
        const int rc = wait_fd(s.fd, POLLOUT, deadline_ms);
        if (rc != 0) {
            return rc;
        }
    }
}

} // namespace

extern "C" {

int drvHdcClientCreate(HDC_CLIENT *client, int max_sessions, int service_type, int flags)
{
    (void)flags;
    return hal_call(Op::ClientCreate, [&] {
        if (client == nullptr || max_sessions <= 0 || service_type < 0) {
            return HOST_HDC_ERR_INVAL;
        }
        auto record = std::make_shared<Client>();
        record->max_sessions = max_sessions;
        record->service_type = service_type;
        *client = clients().add(std::move(record));
        return 0;
    });
}

int drvHdcClientDestroy(HDC_CLIENT client)
{
    return hal_call(Op::ClientDestroy, [&] {
        return clients().remove(client) != nullptr ? 0 : HOST_HDC_ERR_BADHANDLE;
    });
}

int drvHdcSessionConnect(int peer_node, int peer_dev_id, HDC_CLIENT client, HDC_SESSION *session)
{
    (void)peer_node; // one host: every device is "here"
    return hal_call(Op::SessionConnect, [&] {
        std::shared_ptr<Client> owner = clients().find(client);
        if (owner == nullptr) {
            return HOST_HDC_ERR_BADHANDLE;
        }
        if (session == nullptr || peer_dev_id < 0) {
            return HOST_HDC_ERR_INVAL;
        }
        if (owner->open_sessions.fetch_add(1) >= owner->max_sessions) {
            owner->open_sessions.fetch_sub(1);
            return HOST_HDC_ERR_LIMIT;
        }
        auto s = std::make_shared<Session>();
        s->client = owner; // from here on the session's destructor gives the slot back
        s->fd = connect_to_server(peer_dev_id, owner->service_type);
        if (s->fd < 0) {
            const int rc = -s->fd;
            s->fd = -1;
            return rc;
        }
        s->run_env = announced_run_env();
        s->hello_done.store(true);
        int rc = send_hello(s->fd, s->run_env);
        if (rc == 0) {
            rc = peer_uid(s->fd, s->peer_uid);
        }
        if (rc != 0) {
            return rc;
        }
        *session = sessions().add(std::move(s));
        return 0;
    });
}

int drvHdcSessionClose(HDC_SESSION session)
{
    return hal_call(Op::SessionClose, [&] {
        std::shared_ptr<Session> s = sessions().remove(session);
        if (s == nullptr) {
            return HOST_HDC_ERR_BADHANDLE;
        }
        // Wakes calls still blocked on it; the descriptor goes with the last of them.
        shutdown(s->fd, SHUT_RDWR);
        return 0;
    });
}

int drvHdcSetSessionReference(HDC_SESSION session)
{
    return hal_call(Op::SetSessionReference, [&] {
        return sessions().find(session) != nullptr ? 0 : HOST_HDC_ERR_BADHANDLE;
    });
}

int halHdcSend(HDC_SESSION session, struct drvHdcMsg *msg, uint64_t flag, uint32_t timeout_ms)
{
    return hal_call(Op::Send, [&] {
        std::shared_ptr<Session> s = sessions().find(session);
        if (s == nullptr) {
            return HOST_HDC_ERR_BADHANDLE;
        }
        int64_t deadline = 0;
        if (msg == nullptr || !deadline_for(flag, timeout_ms, deadline)) {
            return HOST_HDC_ERR_INVAL;
        }
        const std::vector<char> bytes = joined(*msg);
        if (bytes.empty()) {
            return HOST_HDC_ERR_INVAL; // a zero-length packet would read as the end of the session
        }
        if (bytes.size() > HOST_HDC_MAX_SEGMENT) {
            return HOST_HDC_ERR_TOO_BIG;
        }
        return send_packet(*s, bytes, deadline);
    });
}

int halHdcRecv(HDC_SESSION session, struct drvHdcMsg *msg, int buf_len, uint64_t flag,
               int *recv_count, uint32_t timeout_ms)
{
    return hal_call(Op::Recv, [&] {
        std::shared_ptr<Session> s = sessions().find(session);
        if (s == nullptr) {
            return HOST_HDC_ERR_BADHANDLE;
        }
        int64_t deadline = 0;
        if (msg == nullptr || recv_count == nullptr || buf_len <= 0 ||
            !deadline_for(flag, timeout_ms, deadline)) {
            return HOST_HDC_ERR_INVAL;
        }
        std::vector<char> packet;
        {
            std::lock_guard<std::mutex> guard(s->recv_lock);
            int rc = take_hello(*s, deadline);
            if (rc == 0) {
                rc = read_packet(*s, deadline, packet);
            }
            if (rc != 0) {
                return rc;
            }
        }
        const size_t length = packet.size();
        // The buffer is at least as long as the caller said it would be: callers may write
        // into it up to buf_len bytes.
        packet.resize(std::max(length, static_cast<size_t>(buf_len)), 0);
        msg->buffers.clear();
        msg->buffers.push_back(drvHdcMsg::Buffer{std::move(packet), length});
        *recv_count = 1;
        return 0;
    });
}

int halHdcGetSessionAttr(HDC_SESSION session, int attr, int *value)
{
    return hal_call(Op::GetSessionAttr, [&] {
        std::shared_ptr<Session> s = sessions().find(session);
        if (s == nullptr) {
            return HOST_HDC_ERR_BADHANDLE;
        }
        if (value == nullptr) {
            return HOST_HDC_ERR_INVAL;
        }
        if (attr == HOST_HDC_ATTR_PEER_UID) {
            *value = static_cast<int>(s->peer_uid);
            return 0;
        }
        if (attr != HOST_HDC_ATTR_RUN_ENV) {
            return HOST_HDC_ERR_INVAL;
        }
        if (!s->hello_done.load(std::memory_order_acquire)) {
            std::lock_guard<std::mutex> guard(s->recv_lock);
            const int rc = take_hello(*s, now_ms() + kHelloWaitMs);
            if (rc != 0) {
                return rc;
            }
        }
        *value = s->run_env;
        return 0;
    });
}

} // extern "C"

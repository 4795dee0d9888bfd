// SPDX-License-Identifier: Apache-2.0
// HDC servers of the simulator: a listening packet socket per device id and service
// type, owned through an flock, and the accept that a destroy can wake.
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "hdc_sim_internal.h"
#include "sim_common.h"

using namespace velmar::hostplat::hdc;
namespace sim = velmar::hostplat::sim;

namespace {

constexpr int kBacklog = 64;

// Takes the name of (dev, svc): the lock first, so that only one live server can
// remove a socket file left behind by a dead one and bind afresh.
int claim_name(Server &server, int dev_id, int service_type)
{
    const std::string base = server_base(dev_id, service_type);
    server.lock_fd = open((base + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (server.lock_fd < 0) {
        return HOST_HDC_ERR_IO;
    }
    if (flock(server.lock_fd, LOCK_EX | LOCK_NB) != 0) {
        return errno == EWOULDBLOCK ? HOST_HDC_ERR_IN_USE : HOST_HDC_ERR_IO;
    }
    server.sock_path = base + ".sock";
    return 0;
}

int listen_on_name(Server &server)
{
    sockaddr_un addr{};
    socklen_t len = 0;
    if (!sim::make_unix_addr(server.sock_path, addr, len)) {
        return HOST_HDC_ERR_INVAL;
    }
    server.listen_fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (server.listen_fd < 0) {
        return HOST_HDC_ERR_IO;
    }
    unlink(server.sock_path.c_str()); // a dead server's leftover: the lock says it is ours
    if (bind(server.listen_fd, reinterpret_cast<sockaddr *>(&addr), len) != 0 ||
        listen(server.listen_fd, kBacklog) != 0) {
        return HOST_HDC_ERR_IO;
    }
    server.wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    return server.wake_fd < 0 ? HOST_HDC_ERR_IO : 0;
}

// A session for a connection taken from the backlog.
int adopt_connection(int fd, HDC_SESSION *session)
{
    ucred cred{};
    socklen_t len = sizeof(cred);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) {
        close(fd);
        return HOST_HDC_ERR_IO;
    }
    auto s = std::make_shared<Session>();
    s->fd = fd;
    s->accepted = true;
    s->peer_uid = cred.uid;
    *session = sessions().add(std::move(s));
    return 0;
}

} // namespace

extern "C" {

int drvHdcServerCreate(int dev_id, int service_type, HDC_SERVER *server)
{
    return hal_call(Op::ServerCreate, [&] {
        if (server == nullptr || dev_id < 0 || service_type < 0) {
            return HOST_HDC_ERR_INVAL;
        }
        if (ensure_run_dir() != 0) {
            return HOST_HDC_ERR_IO;
        }
        auto record = std::make_shared<Server>();
        int rc = claim_name(*record, dev_id, service_type);
        if (rc == 0) {
            rc = listen_on_name(*record);
        }
        if (rc != 0) {
            return rc; // the record's destructor gives back what was taken
        }
        *server = servers().add(std::move(record));
        return 0;
    });
}

int drvHdcServerDestroy(HDC_SERVER server)
{
    return hal_call(Op::ServerDestroy, [&] {
        std::shared_ptr<Server> record = servers().remove(server);
        if (record == nullptr) {
            return HOST_HDC_ERR_BADHANDLE;
        }
        // The name is free from now on; the socket itself goes with the last accept using it.
        unlink(record->sock_path.c_str());
        close(record->lock_fd);
        record->lock_fd = -1;
        record->destroyed.store(true);
        const uint64_t one = 1;
        (void)write(record->wake_fd, &one, sizeof(one));
        return 0;
    });
}

int drvHdcSessionAccept(HDC_SERVER server, HDC_SESSION *session)
{
    return hal_call(Op::SessionAccept, [&] {
        std::shared_ptr<Server> record = servers().find(server);
        if (record == nullptr) {
            return HOST_HDC_ERR_BADHANDLE;
        }
        if (session == nullptr) {
            return HOST_HDC_ERR_INVAL;
        }
        for (;;) {
            pollfd pfds[2] = {{record->listen_fd, POLLIN, 0}, {record->wake_fd, POLLIN, 0}};
            if (poll(pfds, 2, -1) < 0 && errno != EINTR) {
                return HOST_HDC_ERR_IO;
            }
            if (record->destroyed.load()) {
                return HOST_HDC_ERR_BADHANDLE;
            }
            const int fd =
                accept4(record->listen_fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
            if (fd >= 0) {
                return adopt_connection(fd, session);
            }
            if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) {
                return HOST_HDC_ERR_IO; // EAGAIN: another thread took this connection
            }
        }
    });
}

} // extern "C"

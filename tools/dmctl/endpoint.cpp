// SPDX-License-Identifier: Apache-2.0
#include "endpoint.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "counters.h"
#include "dm_ipc.h"
#include "dm_udp.h"
#include "host_devmgr.h"
#include "host_platform.h"
#include "output.h"

namespace dmctl {

namespace {

int32_t ignore_request(DM_INTF_ST *, DM_MSG_ST *, void *, uint32_t) noexcept
{
    return 0;
}

std::string udp_error(int code, const Target &target)
{
    const std::string where = describe(target);
    switch (code) {
    case EADDRINUSE:
        return "cannot bind " + where + ": port in use";
    case EACCES:
        return "cannot bind " + where + ": permission denied (ports below 1024 need privileges)";
    case EADDRNOTAVAIL:
        return "cannot bind " + where + ": address not available on this host";
    default:
        return "cannot open " + where + ": " + returned("dm_udp_init", code);
    }
}

DM_ADDR_ST udp_addr(const sockaddr_in &sa)
{
    DM_ADDR_ST addr{};
    addr.kind = DM_ADDR_KIND_UDP;
    addr.family = DM_ADDR_FAMILY_UDP;
    memcpy(addr.sa, &sa, sizeof(sa));
    return addr;
}

// The label of a bound socket, with the port the kernel chose for port 0.
std::string bound_label(int fd, const Target &fallback)
{
    Target bound = fallback;
    socklen_t len = sizeof(bound.udp);
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&bound.udp), &len) != 0) {
        return describe(fallback);
    }
    return describe(bound);
}

std::string open_udp(Context &ctx, const Target &target, const sockaddr_in &bind_to, Endpoint &out)
{
    DM_ADDR_ST own = udp_addr(bind_to);
    // The library closes the socket of the interface named "dm_udp" only; further UDP
    // interfaces of a context get other names and their sockets are closed by us.
    const bool first = dm_get_intf(ctx.cb(), "dm_udp", DM_INTF_NAME_LEN) == nullptr;
    const std::string name = first ? "dm_udp" : "dm_udp_" + std::to_string(ntohs(bind_to.sin_port));
    DM_INTF_ST *intf = nullptr;
    const int ret = dm_udp_init(&intf, ctx.cb(), timeout_handler, &own,
                                first ? nullptr : name.c_str(), static_cast<uint32_t>(name.size()));
    if (ret != 0) {
        Target bound = target;
        bound.udp = bind_to;
        return udp_error(ret, bound);
    }
    if (!first) {
        ctx.adopt_fd(intf->fd);
    }
    out.intf = intf;
    Target bound = target;
    bound.udp = bind_to;
    out.label = bound_label(intf->fd, bound);
    return {};
}

std::string open_ipc(Context &ctx, const Target &target, Endpoint &out)
{
    if (std::string why = simulator_dir_problem(host_devmgr_dir(), HOST_DEVMGR_DIR_ENV);
        !why.empty()) {
        return why;
    }
    DM_ADDR_ST addr{};
    addr.kind = DM_ADDR_KIND_IPC;
    addr.family = DM_ADDR_FAMILY_IPC;
    addr.peer_id = target.number;
    DM_INTF_ST *intf = nullptr;
    const int ret = dm_ipc_init(&intf, ctx.cb(), timeout_handler, &addr, nullptr, 0);
    if (ret == 16) {
        return "device " + std::to_string(target.number) + " is opened twice";
    }
    if (ret != 0) {
        return "cannot open the device manager for device " + std::to_string(target.number) +
               " (directory " + host_devmgr_dir() + "): " + returned("dm_ipc_init", ret);
    }
    out.intf = intf;
    out.peer = addr;
    out.peer_len = DM_IPC_ADDR_LEN;
    out.label = describe(target);
    return {};
}

std::string parent_of(const std::string &dir)
{
    const size_t slash = dir.find_last_of('/', dir.find_last_not_of('/'));
    return slash == std::string::npos ? "." : slash == 0 ? "/" : dir.substr(0, slash);
}

std::string finish(Context &ctx, Endpoint &out, std::string error)
{
    if (!error.empty()) {
        return error;
    }
    const int ret = watch_interface(ctx.cb(), out.intf, out.label);
    if (ret != 0) {
        return "cannot watch " + out.label + ": " + returned("poller_timer_add", ret);
    }
    return {};
}

} // namespace

Context::~Context()
{
    // A server's channel goes first, so that no new session starts on a record that
    // dm_destroy is about to free; its accept thread leaves once dm_destroy has stopped
    // the accept loops. Destroying the server is the only way to wake that thread, and it
    // reports the failed accept as an error line, possibly after dm_destroy has
    // returned. Here that is the normal end of a server, so unless the user chose a log
    // level the log stays quiet from now on (the context goes only when dmctl ends).
    const bool servers =
        std::any_of(hdc_.begin(), hdc_.end(), [](const HdcChannel &ch) { return ch.server; });
    if (servers && !user_chose_log_level()) {
        host_dlog_set_level(4);
    }
    for (const HdcChannel &ch : hdc_) {
        if (ch.server) {
            destroy_hdc_handle(ch.cell, true);
        }
    }
    dm_destroy(cb_);
    for (const HdcChannel &ch : hdc_) {
        if (!ch.server) {
            destroy_hdc_handle(ch.cell, false);
        }
        free(ch.cell);
        close(ch.fd);
        close(ch.wfd);
    }
    for (const int fd : fds_) {
        close(fd);
    }
}

std::string Context::init(DM_CMD_HANDLER_FN handler, void *user_data)
{
    const int ret = dm_init(&cb_);
    if (ret != 0) {
        return "cannot create the framework context: " + returned("dm_init", ret);
    }
    // A context without a registration would hand requests to a null default handler.
    const int reg = dm_cmd_register(cb_, handler != nullptr ? handler : ignore_request, nullptr,
                                    &user_data, sizeof(user_data));
    if (reg != 0) {
        return "cannot register the command handler: " + returned("dm_cmd_register", reg);
    }
    return {};
}

void Context::adopt_hdc_channel(DM_INTF_ST *intf, bool server)
{
    hdc_.push_back({reinterpret_cast<uint64_t *>(static_cast<uintptr_t>(intf->reserved)), intf->fd,
                    intf->wfd, server});
}

std::string simulator_dir_problem(const std::string &dir, const char *env)
{
    const std::string fix = std::string(" (") + env + " names it)";
    struct stat st {};
    if (stat(dir.c_str(), &st) == 0) {
        if (!S_ISDIR(st.st_mode)) {
            return "the simulator directory " + dir + " is not a directory" + fix;
        }
        return access(dir.c_str(), W_OK | X_OK) == 0
                   ? std::string()
                   : "the simulator directory " + dir + " is not writable" + fix;
    }
    const std::string parent = parent_of(dir);
    if (stat(parent.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        return "the simulator directory " + dir + " does not exist and cannot be made: " +
               parent + " is missing" + fix;
    }
    return {}; // the simulator makes it on first use
}

std::string local_address_problem(const Target &target)
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return {}; // no verdict; the library will say what fails
    }
    sockaddr_in probe = target.udp;
    probe.sin_port = 0; // the address alone: the port may be taken, that is told later
    const bool missing = bind(fd, reinterpret_cast<const sockaddr *>(&probe), sizeof(probe)) != 0 &&
                         errno == EADDRNOTAVAIL;
    close(fd);
    if (!missing) {
        return {};
    }
    return "cannot bind " + describe(target) +
           ": the address is not one of this host's (--freebind binds it all the same)";
}

std::string open_server(Context &ctx, const Target &target, Endpoint &out)
{
    out = Endpoint{};
    out.target = target;
    switch (target.transport) {
    case Transport::udp:
        return finish(ctx, out, open_udp(ctx, target, target.udp, out));
    case Transport::ipc:
        return finish(ctx, out, open_ipc(ctx, target, out));
    case Transport::hdc:
        return finish(ctx, out, open_hdc(ctx, target, true, out));
    default:
        return "no transport given (--udp, --hdc or --ipc)";
    }
}

std::string open_client(Context &ctx, const Target &target, Endpoint &out)
{
    out = Endpoint{};
    out.target = target;
    switch (target.transport) {
    case Transport::udp: {
        if (target.udp.sin_port == 0) {
            return "cannot send to " + describe(target) + ": port 0";
        }
        sockaddr_in any{};
        any.sin_family = AF_INET;
        any.sin_addr.s_addr = htonl(INADDR_ANY);
        out.peer = udp_addr(target.udp);
        out.peer_len = sizeof(sockaddr_in);
        std::string error = open_udp(ctx, target, any, out);
        out.label = describe(target); // the peer names the endpoint better than our port
        return finish(ctx, out, error);
    }
    case Transport::ipc:
        return finish(ctx, out, open_ipc(ctx, target, out));
    case Transport::hdc:
        return finish(ctx, out, open_hdc(ctx, target, false, out));
    default:
        return "no transport given (--udp, --hdc or --ipc)";
    }
}

std::string open_selfloop(Context &ctx, Endpoint &out)
{
    out = Endpoint{};
    out.target.transport = Transport::selfloop;
    out.intf = dm_get_intf(ctx.cb(), "selfloop", 9);
    if (out.intf == nullptr) {
        return "the context has no self-loop interface";
    }
    out.peer = out.intf->addr;
    out.peer_len = sizeof(DM_ADDR_ST);
    out.label = "selfloop";
    return finish(ctx, out, {});
}

} // namespace dmctl

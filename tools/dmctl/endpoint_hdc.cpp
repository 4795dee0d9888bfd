// SPDX-License-Identifier: Apache-2.0
// HDC endpoints: a server of device N (role 1) or a client that connects to device N.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "counters.h"
#include "dm_hdc.h"
#include "endpoint.h"
#include "host_hdc.h"
#include "output.h"

namespace dmctl {

namespace {

DM_HDC_ADDR_ST hdc_addr(uint32_t dev_id, bool server)
{
    DM_HDC_ADDR_ST addr{};
    addr.kind = DM_ADDR_KIND_HDC;
    addr.family = DM_ADDR_FAMILY_HDC;
    addr.role = server ? DM_HDC_ROLE_SERVER : DM_HDC_ROLE_CLIENT;
    addr.dev_id = dev_id;
    addr.intf_num = dev_id;
    return addr;
}

std::string hdc_where(uint32_t dev_id)
{
    return "HDC device " + std::to_string(dev_id) + " (directory " + host_hdc_dir() + ")";
}

} // namespace

// The simulator's server of a device holds an flock on "hdc-<dev>-<service>.lock" for as
// long as it lives (host_hdc.h). Probing the lock asks without connecting: a connect
// would start a session on the server that ends in an error line there. The library
// itself would retry for 40 s (client) or two minutes (server) before giving up.
bool hdc_server_running(uint32_t dev_id)
{
    const std::string path =
        std::string(host_hdc_dir()) + "/hdc-" + std::to_string(dev_id) + "-0.lock";
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const bool held = flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    close(fd); // also drops a shared lock we may have taken
    return held;
}

void destroy_hdc_handle(const uint64_t *cell, bool server)
{
    if (cell == nullptr) {
        return;
    }
    void *handle = reinterpret_cast<void *>(static_cast<uintptr_t>(*cell));
    if (server) {
        (void)drvHdcServerDestroy(handle);
    } else {
        (void)drvHdcClientDestroy(handle);
    }
}

std::string open_hdc(Context &ctx, const Target &target, bool server, Endpoint &out)
{
    const uint32_t dev = target.number;
    if (std::string why = simulator_dir_problem(host_hdc_dir(), HOST_HDC_DIR_ENV); !why.empty()) {
        return why;
    }
    const bool running = hdc_server_running(dev);
    if (server && running) {
        return hdc_where(dev) + " already has a server";
    }
    if (!server && !running) {
        return "no HDC server for " + hdc_where(dev) + "; start one with: dmctl serve --hdc " +
               std::to_string(dev);
    }
    DM_HDC_ADDR_ST addr = hdc_addr(dev, server);
    DM_INTF_ST *intf = nullptr;
    const int ret = dm_hdc_init(&intf, ctx.cb(), timeout_handler,
                                reinterpret_cast<DM_ADDR_ST *>(&addr), nullptr, 0);
    if (ret == -16) {
        return "HDC interface dm_hdc" + std::to_string(dev) + " is opened twice";
    }
    if (ret != 0) {
        return std::string("cannot open the ") + (server ? "server" : "client") + " of " +
               hdc_where(dev) + ": " + returned("dm_hdc_init", ret);
    }
    ctx.adopt_hdc_channel(intf, server);
    out.intf = intf;
    DM_HDC_ADDR_ST peer = hdc_addr(dev, false);
    memcpy(&out.peer, &peer, sizeof(peer));
    out.peer_len = DM_HDC_ADDR_LEN;
    out.label = describe(target);
    return {};
}

} // namespace dmctl

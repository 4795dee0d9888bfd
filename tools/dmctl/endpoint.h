/* SPDX-License-Identifier: Apache-2.0 */
// The framework context and the interfaces dmctl opens on it, one per transport, with
// the clean-up the library leaves to its user (HDC channels, extra UDP sockets).
#ifndef DMCTL_ENDPOINT_H
#define DMCTL_ENDPOINT_H

#include <cstdint>
#include <string>
#include <vector>

#include "cli.h"
#include "dm_msg.h"

namespace dmctl {

class Context {
public:
    Context() = default;
    ~Context();
    Context(const Context &) = delete;
    Context &operator=(const Context &) = delete;

    // dm_init and a command handler; returns an error text, empty on success. Requests
    // that arrive go to `handler` (nullptr: they are ignored), with `user_data` (8
    // bytes: the pointer itself is copied).
    std::string init(DM_CMD_HANDLER_FN handler, void *user_data);
    DM_CB_ST *cb() const { return cb_; }

    // What the library leaves open when an HDC interface is closed: the channel's
    // handle cell and its pipe. Taken over at open time, released after dm_destroy.
    void adopt_hdc_channel(DM_INTF_ST *intf, bool server);
    // A socket that the library does not close (interfaces not named "dm_udp").
    void adopt_fd(int fd) { fds_.push_back(fd); }

private:
    struct HdcChannel {
        uint64_t *cell;
        int fd;
        int wfd;
        bool server;
    };
    DM_CB_ST *cb_ = nullptr;
    std::vector<HdcChannel> hdc_;
    std::vector<int> fds_;
};

struct Endpoint {
    Target target; // what the user named
    DM_INTF_ST *intf = nullptr;
    DM_ADDR_ST peer{}; // where requests go (clients)
    uint32_t peer_len = 0;
    std::string label; // for reports: "udp 127.0.0.1:40000"
};

// Opens the endpoint that serves `target` (binds the UDP address, creates the HDC server
// of device N, opens the IPC channel of device N) and watches its slots. Returns an
// error text naming the problem, empty on success.
std::string open_server(Context &ctx, const Target &target, Endpoint &out);

// Opens an endpoint that sends requests to `target`. A UDP client binds an ephemeral
// port on all addresses; an HDC client refuses at once when device N has no server.
std::string open_client(Context &ctx, const Target &target, Endpoint &out);

// The context's own self-loop, as an endpoint that sends to itself.
std::string open_selfloop(Context &ctx, Endpoint &out);

// Why the simulator directory `dir` (named by the environment variable `env`) cannot
// serve, empty when it can: it exists as a directory we may write, or can be made. Asked
// before the library, whose own answer (a HAL or device-manager code) does not say it.
std::string simulator_dir_problem(const std::string &dir, const char *env);

// Why a UDP server should not bind `target`'s address, empty when it may: the address
// is none of this host's. The library binds such an address all the same (it sets
// IP_FREEBIND), and the server would then wait for requests that never reach it.
std::string local_address_problem(const Target &target);

// HDC specifics (endpoint_hdc.cpp).
std::string open_hdc(Context &ctx, const Target &target, bool server, Endpoint &out);
// Whether the simulator has a live server for device `dev_id` (service type 0).
bool hdc_server_running(uint32_t dev_id);
// Destroys the HAL handle held in an HDC interface's channel cell.
void destroy_hdc_handle(const uint64_t *cell, bool server);

} // namespace dmctl

#endif // DMCTL_ENDPOINT_H

/* SPDX-License-Identifier: Apache-2.0 */
// Shared by the parts of the HDC simulator (design in host_hdc.h): the run-time
// directory, the handle tables, the records behind handles, fault injection and the
// socket helpers.
#pragma once

#include <cxxabi.h>

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "host_hdc.h"

// A message: up to `capacity` buffers, each owned by the message. A received buffer may
// be longer than the message in it (see halHdcRecv).
struct drvHdcMsg {
    struct Buffer {
        std::vector<char> bytes;
        size_t length; // of the message; bytes.size() >= length
    };
    int capacity = 0;
    std::vector<Buffer> buffers;
};

namespace velmar::hostplat::hdc {

constexpr uint32_t kHelloMagic = 0x56484431; // "VHD1"
constexpr int kHelloWaitMs = 1000;

// The first packet of every session, from the connecting side.
struct Hello {
    uint32_t magic;
    int32_t run_env;
    int32_t pid;
};

// ---- Directory and names ----
const std::string &run_dir();
int ensure_run_dir();                                  // 0 or an errno value
std::string server_base(int dev_id, int service_type); // "<dir>/hdc-<dev>-<svc>"

int32_t announced_run_env();

// ---- Records behind handles ----
struct Server {
    int listen_fd = -1;
    int wake_fd = -1; // eventfd: readable once the server is destroyed
    int lock_fd = -1; // holds the flock that makes the name ours
    std::string sock_path;
    std::atomic<bool> destroyed{false};
    ~Server();
};

struct Client {
    int max_sessions = 0;
    int service_type = 0;
    std::atomic<int> open_sessions{0};
};

struct Session {
    int fd = -1;
    bool accepted = false; // the server's end
    uint32_t peer_uid = 0;
    // Taken under recv_lock; published through hello_done (release) so that readers of
    // run_env that see it set need no lock.
    std::mutex recv_lock;
    std::atomic<bool> hello_done{false};
    int32_t run_env = HOST_HDC_DEFAULT_RUN_ENV;
    std::shared_ptr<Client> client; // counts this session while it is open; null if accepted
    ~Session();
};

// Handles are numbers from one counter shared by all kinds, so a handle is valid in one
// table at most and never comes back after it was closed.
uintptr_t next_handle();

template <typename T> class Table {
public:
    void *add(std::shared_ptr<T> item)
    {
        const uintptr_t id = next_handle();
        std::lock_guard<std::mutex> guard(lock_);
        items_.emplace(id, std::move(item));
        return reinterpret_cast<void *>(id);
    }
    std::shared_ptr<T> find(const void *handle)
    {
        std::lock_guard<std::mutex> guard(lock_);
        auto it = items_.find(reinterpret_cast<uintptr_t>(handle));
        return it == items_.end() ? nullptr : it->second;
    }
    std::shared_ptr<T> remove(const void *handle)
    {
        std::lock_guard<std::mutex> guard(lock_);
        auto node = items_.extract(reinterpret_cast<uintptr_t>(handle));
        return node.empty() ? nullptr : std::move(node.mapped());
    }

private:
    std::mutex lock_;
    std::unordered_map<uintptr_t, std::shared_ptr<T>> items_;
};

// Never destroyed: detached threads may still use them while the process exits.
Table<Server> &servers();
Table<Client> &clients();
Table<Session> &sessions();

// ---- Fault injection: one op per HAL call ----
enum class Op {
    GetCapacity,
    ServerCreate,
    ServerDestroy,
    SessionAccept,
    ClientCreate,
    ClientDestroy,
    SessionConnect,
    SessionClose,
    SetSessionReference,
    AllocMsg,
    FreeMsg,
    AddMsgBuffer,
    GetMsgBuffer,
    Send,
    Recv,
    GetSessionAttr,
    Count
};
// Counts the call; true when it must fail, with `code` the injected result.
bool take_fault(Op op, int &code);

// The frame of every HAL call: an injected failure first, then `body`; no exception
// leaves a C function (the only ones possible are failed allocations). Thread
// cancellation is not an exception to swallow: a task deleted while it waits in a HAL
// call unwinds through here, and stopping that unwind would abort the whole process.
template <typename F> int hal_call(Op op, F &&body)
{
    int code = 0;
    if (take_fault(op, code)) {
        return code;
    }
    try {
        return body();
    } catch (abi::__forced_unwind &) {
        throw;
    } catch (...) {
        return HOST_HDC_ERR_NOMEM;
    }
}

// ---- Waiting ----
// Milliseconds left before `deadline_ms` (monotonic), -1 for no deadline.
int64_t now_ms();
int remaining_ms(int64_t deadline_ms);
// The deadline that a wait flag and time-out give; -1 waits for ever, 0 not at all.
// False for an unknown flag.
bool deadline_for(uint64_t flag, uint32_t timeout_ms, int64_t &deadline_ms);
// Waits for `events` on `fd` until the deadline. 0, HOST_HDC_ERR_TIMEOUT or IO.
int wait_fd(int fd, short events, int64_t deadline_ms);

// Reads the next packet of a session whole. 0, TIMEOUT, CLOSED or IO. Caller holds
// recv_lock.
int read_packet(Session &s, int64_t deadline_ms, std::vector<char> &out);
// Reads the peer's hello if it has not been read yet. Caller holds recv_lock.
int take_hello(Session &s, int64_t deadline_ms);

} // namespace velmar::hostplat::hdc

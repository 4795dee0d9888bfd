/* SPDX-License-Identifier: Apache-2.0 */
// Shared by the HDC tests and their peer program (no GoogleTest in here): contexts with
// HDC interfaces that are torn down completely, recorders of messages, a raw simulator
// client that plays a peer byte by byte, and waiting with generous bounds.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "dm_hdc.h"
#include "dm_msg.h"
#include "host_hdc.h"
#include "support/waiting.h"

namespace hdc_test {

using namespace velmar::test;

// Threads of this process with this name, as the kernel keeps it (15 characters).
int threads_named(const char *name);
constexpr char kAcceptThread[] = "server_accept";
constexpr char kSessionThread[] = "server_recv_msg"; // "server_recv_msg_proc", cut

DM_HDC_ADDR_ST hdc_addr(uint32_t role, uint32_t intf_num, uint32_t dev_id);
inline DM_ADDR_ST *as_addr(DM_HDC_ADDR_ST *addr) { return reinterpret_cast<DM_ADDR_ST *>(addr); }

// One received message as a handler or response callback saw it.
struct Seen {
    uint32_t type;
    uint32_t src_id;
    uint8_t src_type;
    uint32_t src_index;
    uint64_t req_id;
    uint32_t addr_len;
    DM_HDC_ADDR_ST addr;
    std::string data;
    uint32_t word; // bytes 8 to 11 of the data buffer, whatever data_len says
};

// The payload of `len` bytes that the tests send: no zero byte among bytes 8 to 11.
std::string pattern(size_t len);
// True when the data equals pattern(its length) outside bytes 8 to 11.
bool intact(const Seen &seen);
// One line for a message, as the peer program prints it:
// "len=<n> word=<w> src_type=<t> src_index=<i> src_id=<s> role=<r> intact=<0|1>".
std::string describe(const Seen &seen);

// Records messages; passed to the framework as 8 bytes of user data (its address).
class Inbox {
public:
    static int32_t record(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user_data, uint32_t len);
    // Records the request and sends its payload back, as it arrived.
    static int32_t echo(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user_data, uint32_t len);
    void add(const DM_MSG_ST *msg);
    // The first `n` messages, waiting up to 10 s for them; fewer if they never came.
    std::vector<Seen> wait(size_t n);
    size_t size();
    // Set by echo: what dm_send_rsp returned for the last reply and a second one.
    std::atomic<int> last_reply{-1000};
    std::atomic<int> second_reply{-1000};
    bool reply_twice = false;

private:
    std::mutex mutex_;
    std::vector<Seen> seen_;
};

int32_t no_timeout_answer(DM_DATA_ST *req, DM_DATA_ST *rsp);

// A framework context whose HDC interfaces go away completely with it. Closing an HDC
// interface leaves its channel handle, cell and pipe behind on purpose, and the accept
// thread blocked until its server is destroyed; this gives them all back and waits
// until no accept or session thread is left.
class HdcContext {
public:
    HdcContext();
    ~HdcContext();
    HdcContext(const HdcContext &) = delete;
    HdcContext &operator=(const HdcContext &) = delete;

    // dm_hdc_init; the record, or null with the code in *ret.
    DM_INTF_ST *open(uint32_t role, uint32_t intf_num, uint32_t dev_id, int *ret = nullptr);
    int serve(Inbox *inbox, DM_CMD_HANDLER_FN handler = Inbox::echo);
    DM_CB_ST *cb = nullptr;

private:
    struct Leftovers {
        uint64_t *cell;
        int fd;
        int wfd;
        bool server;
    };
    std::vector<Leftovers> left_;
};

// A request through `intf` to device `dev_id`, answered into `inbox`.
int request(DM_INTF_ST *intf, uint32_t dev_id, const std::string &data, Inbox *inbox);

// A frame as it travels on the channel, built byte by byte.
std::string make_frame(uint64_t session, uint32_t dst_dev, uint32_t src_dev, uint64_t req_id,
                       uint32_t type, const std::string &data);

// The simulator used directly: plays the other end of an interface.
class RawClient {
public:
    RawClient();
    ~RawClient();
    HDC_SESSION connect(int dev_id); // null on failure
    static int send(HDC_SESSION session, const std::string &bytes);
    static int recv(HDC_SESSION session, std::string &out, uint32_t timeout_ms);

private:
    HDC_CLIENT client_ = nullptr;
};

} // namespace hdc_test

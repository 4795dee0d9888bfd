// SPDX-License-Identifier: Apache-2.0
#include "hdc/hdc_test_support.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace hdc_test {

int threads_named(const char *name)
{
    int n = 0;
    std::error_code ec;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task", ec)) {
        std::ifstream comm(task.path() / "comm");
        std::string line;
        if (std::getline(comm, line) && line == name) {
            ++n;
        }
    }
    return n;
}

DM_HDC_ADDR_ST hdc_addr(uint32_t role, uint32_t intf_num, uint32_t dev_id)
{
    DM_HDC_ADDR_ST addr{};
    addr.kind = DM_ADDR_KIND_HDC;
    addr.family = DM_ADDR_FAMILY_HDC;
    addr.role = role;
    addr.dev_id = dev_id;
    addr.intf_num = intf_num;
    return addr;
}

std::string pattern(size_t len)
{
    std::string data(len, '\0');
    for (size_t i = 0; i < len; ++i) {
        data[i] = static_cast<char>((i * 7 + 3) & 0xff);
    }
    return data;
}

bool intact(const Seen &seen)
{
    std::string expected = pattern(seen.data.size());
    std::string got = seen.data;
    for (size_t i = 8; i < 12 && i < got.size(); ++i) {
        expected[i] = got[i] = '\0';
    }
    return expected == got;
}

std::string describe(const Seen &seen)
{
    char line[160];
    snprintf(line, sizeof(line),
             "len=%zu word=%u src_type=%u src_index=%u src_id=%u role=%u intact=%d",
             seen.data.size(), seen.word, seen.src_type, seen.src_index, seen.src_id,
             seen.addr.role, intact(seen) ? 1 : 0);
    return line;
}

// Framework buffers hold 4096 bytes, so bytes 8 to 11 can always be read.
void Inbox::add(const DM_MSG_ST *msg)
{
    Seen seen{};
    seen.type = msg->type;
    seen.src_id = msg->src_id;
    seen.src_type = msg->src_type;
    seen.src_index = msg->src_index;
    seen.req_id = msg->req_id;
    seen.addr_len = msg->addr_len;
    memcpy(&seen.addr, msg->addr, sizeof(seen.addr));
    seen.data.assign(reinterpret_cast<const char *>(msg->data.data), msg->data.data_len);
    memcpy(&seen.word, msg->data.data + 8, sizeof(seen.word));
    std::lock_guard<std::mutex> guard(mutex_);
    seen_.push_back(seen);
}

int32_t Inbox::record(DM_INTF_ST *, DM_MSG_ST *msg, void *user_data, uint32_t)
{
    (*static_cast<Inbox **>(user_data))->add(msg);
    return 0;
}

int32_t Inbox::echo(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user_data, uint32_t)
{
    Inbox *self = *static_cast<Inbox **>(user_data);
    DM_DATA_ST rsp = msg->data;
    self->last_reply = dm_send_rsp(intf, msg->addr, msg->addr_len, &rsp, msg->req_id);
    if (self->reply_twice) {
        self->second_reply = dm_send_rsp(intf, msg->addr, msg->addr_len, &rsp, msg->req_id);
    }
    self->add(msg);
    return 0;
}

std::vector<Seen> Inbox::wait(size_t n)
{
    wait_until([&] { return size() >= n; }, 10s);
    std::lock_guard<std::mutex> guard(mutex_);
    return seen_;
}

size_t Inbox::size()
{
    std::lock_guard<std::mutex> guard(mutex_);
    return seen_.size();
}

int32_t no_timeout_answer(DM_DATA_ST *, DM_DATA_ST *) { return 0; }

HdcContext::HdcContext()
{
    // The close slot of every HDC interface clears this process-wide flag and the library
    // never sets it again; an earlier context's close would keep this one's accept loop
    // from ever running. Its accept threads are gone by now (see the destructor); they
    // read the flag atomically, and so does this.
    std::atomic_ref<int>(g_dm_hdc_run).store(1);
    dm_init(&cb);
}

HdcContext::~HdcContext()
{
    // A session thread still running would write into a pipe whose record is gone.
    wait_until([] { return threads_named(kSessionThread) == 0; }, 10s);
    dm_destroy(cb);
    for (const Leftovers &left : left_) {
        auto *handle = reinterpret_cast<void *>(*left.cell);
        (void)(left.server ? drvHdcServerDestroy(handle) : drvHdcClientDestroy(handle));
        free(left.cell);
        close(left.fd);
        close(left.wfd);
    }
    // Destroying the server woke each accept thread; the cleared flag ends its loop.
    wait_until([] { return threads_named(kAcceptThread) == 0; }, 10s);
}

DM_INTF_ST *HdcContext::open(uint32_t role, uint32_t intf_num, uint32_t dev_id, int *ret)
{
    DM_HDC_ADDR_ST addr = hdc_addr(role, intf_num, dev_id);
    DM_INTF_ST *intf = nullptr;
    const int rc = dm_hdc_init(&intf, cb, no_timeout_answer, as_addr(&addr), nullptr, 0);
    if (ret != nullptr) {
        *ret = rc;
    }
    if (rc != 0) {
        return nullptr;
    }
    left_.push_back({reinterpret_cast<uint64_t *>(intf->reserved), intf->fd, intf->wfd,
                     role == DM_HDC_ROLE_SERVER});
    return intf;
}

int HdcContext::serve(Inbox *inbox, DM_CMD_HANDLER_FN handler)
{
    return dm_cmd_register(cb, handler, nullptr, &inbox, sizeof(inbox));
}

int request(DM_INTF_ST *intf, uint32_t dev_id, const std::string &data, Inbox *inbox)
{
    DM_HDC_ADDR_ST dst = hdc_addr(0, 0, dev_id);
    DM_DATA_ST req{static_cast<uint16_t>(data.size()),
                   reinterpret_cast<uint8_t *>(const_cast<char *>(data.data()))};
    return dm_send_req(intf, as_addr(&dst), DM_ADDR_LEN, &req, Inbox::record, &inbox,
                       sizeof(inbox));
}

std::string make_frame(uint64_t session, uint32_t dst_dev, uint32_t src_dev, uint64_t req_id,
                       uint32_t type, const std::string &data)
{
    std::string frame(DM_HDC_HEADER_LEN, '\0');
    const auto len = static_cast<uint16_t>(data.size());
    memcpy(&frame[0], &session, 8);
    memcpy(&frame[8], &dst_dev, 4);
    memcpy(&frame[12], &src_dev, 4);
    memcpy(&frame[16], &req_id, 8);
    memcpy(&frame[24], &type, 4);
    memcpy(&frame[28], &len, 2);
    return frame + data;
}

RawClient::RawClient() { (void)drvHdcClientCreate(&client_, 16, 0, 0); }

RawClient::~RawClient() { (void)drvHdcClientDestroy(client_); }

HDC_SESSION RawClient::connect(int dev_id)
{
    HDC_SESSION session = nullptr;
    return drvHdcSessionConnect(0, dev_id, client_, &session) == 0 ? session : nullptr;
}

int RawClient::send(HDC_SESSION session, const std::string &bytes)
{
    drvHdcMsg *msg = nullptr;
    int ret = drvHdcAllocMsg(session, &msg, 1);
    if (ret == 0) {
        ret = drvHdcAddMsgBuffer(msg, const_cast<char *>(bytes.data()),
                                 static_cast<int>(bytes.size()));
        ret = ret != 0 ? ret : halHdcSend(session, msg, HOST_HDC_WAIT_TIMEOUT, 3000);
        drvHdcFreeMsg(msg);
    }
    return ret;
}

int RawClient::recv(HDC_SESSION session, std::string &out, uint32_t timeout_ms)
{
    drvHdcMsg *msg = nullptr;
    int ret = drvHdcAllocMsg(session, &msg, 1);
    if (ret != 0) {
        return ret;
    }
    int count = 0;
    char *buf = nullptr;
    int len = 0;
    ret = halHdcRecv(session, msg, 4096, HOST_HDC_WAIT_TIMEOUT, &count, timeout_ms);
    if (ret == 0 && (ret = drvHdcGetMsgBuffer(msg, 0, &buf, &len)) == 0) {
        out.assign(buf, static_cast<size_t>(len));
    }
    drvHdcFreeMsg(msg);
    return ret;
}

} // namespace hdc_test

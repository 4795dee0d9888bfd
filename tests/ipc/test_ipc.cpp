// SPDX-License-Identifier: Apache-2.0
// The IPC transport end to end: a simulated device talks to a framework context through
// the host's device-manager simulator.
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "dm_ipc.h"
#include "dm_msg.h"
#include "host_devmgr.h"
#include "ipc/devmgr_env.h"
#include "support/faults.h"
#include "support/log_writer.h"

using namespace velmar::test;

namespace {

// Armed on the test's thread, which is the one that registers: the poller thread's own
// calls are never hit.
thread_local int t_fail_poller_fd_add = 0;
thread_local int t_fail_list_append = 0;

// What the command handler saw of one request.
struct Seen {
    DM_MSG_ST msg;
    DM_ADDR_ST addr;
    std::string data;
};

// Records every request and answers it with "ack:" and its payload.
class Handler {
public:
    static int32_t handle(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user_data, uint32_t)
    {
        auto *self = *static_cast<Handler **>(user_data);
        Seen seen{*msg, *msg->addr, std::string(reinterpret_cast<char *>(msg->data.data), msg->data.data_len)};
        std::string answer = "ack:" + seen.data;
        DM_DATA_ST rsp{static_cast<uint16_t>(answer.size()), reinterpret_cast<uint8_t *>(answer.data())};
        dm_send_rsp(intf, msg->addr, msg->addr_len, &rsp, msg->req_id);
        std::lock_guard lock(self->mutex_);
        self->seen_.push_back(seen);
        self->cv_.notify_all();
        return 0;
    }
    // Waits until `n` requests came; a copy of all of them.
    std::vector<Seen> wait(size_t n)
    {
        std::unique_lock lock(mutex_);
        cv_.wait_for(lock, std::chrono::seconds(5), [&] { return seen_.size() >= n; });
        return seen_;
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<Seen> seen_;
};

DM_ADDR_ST ipc_addr(uint32_t dev_id)
{
    DM_ADDR_ST addr{};
    addr.kind = DM_ADDR_KIND_IPC;
    addr.family = DM_ADDR_FAMILY_IPC;
    addr.peer_id = dev_id;
    return addr;
}

class Ipc : public ::testing::Test {
protected:
    void SetUp() override
    {
        host_devmgr_fail_clear();
        fds_before_ = open_fds();
        ASSERT_EQ(dm_init(&cb_), 0);
        Handler *self = &handler_;
        ASSERT_EQ(dm_cmd_register(cb_, Handler::handle, nullptr, &self, sizeof(self)), 0);
        dev_ = host_devmgr_device_open(kDev);
        ASSERT_NE(dev_, nullptr);
    }
    void TearDown() override
    {
        host_devmgr_fail_clear();
        dm_destroy(cb_);
        host_devmgr_device_close(dev_);
        EXPECT_EQ(open_fds(), fds_before_) << "a descriptor leaked";
    }
    DM_INTF_ST *make(uint32_t dev_id = kDev)
    {
        DM_ADDR_ST addr = ipc_addr(dev_id);
        DM_INTF_ST *intf = nullptr;
        EXPECT_EQ(dm_ipc_init(&intf, cb_, nullptr, &addr, nullptr, 0), 0);
        return intf;
    }
    void device_says(const std::string &text)
    {
        ASSERT_EQ(host_devmgr_device_send_to_process(dev_, getpid(), text.data(), static_cast<uint32_t>(text.size())), 0);
    }
    std::string device_hears()
    {
        std::array<char, 256> buf{};
        uint32_t len = 0;
        EXPECT_EQ(host_devmgr_device_recv_from_process(dev_, buf.data(), buf.size(), &len, nullptr, 5000), 0);
        return std::string(buf.data(), len);
    }
    static constexpr uint32_t kDev = 7;
    DM_CB_ST *cb_ = nullptr;
    Handler handler_;
    host_devmgr_device *dev_ = nullptr;
    int fds_before_ = 0;
};

TEST_F(Ipc, DeviceMessagesArriveAsNumberedRequestsAndAnswersGoBack)
{
    DM_INTF_ST *intf = make();
    ASSERT_NE(intf, nullptr);
    EXPECT_STREQ(intf->name, "dm_ipc7");
    EXPECT_EQ(intf->fd, intf->wfd);
    EXPECT_EQ(fcntl(intf->fd, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    EXPECT_EQ(fcntl(intf->fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(intf->timeout_ms, 10000U);
    device_says("ping");
    EXPECT_EQ(device_hears(), "ack:ping");
    device_says(std::string(32, 'z'));
    EXPECT_EQ(device_hears(), "ack:" + std::string(32, 'z'));

    const auto seen = handler_.wait(2);
    ASSERT_EQ(seen.size(), 2U);
    const Seen &first = seen[0];
    EXPECT_EQ(first.data, "ping");
    EXPECT_EQ(first.msg.type, static_cast<uint32_t>(DM_MSG_REQ));
    EXPECT_EQ(first.msg.addr_len, 12U);
    EXPECT_EQ(first.addr.kind, static_cast<uint32_t>(DM_ADDR_KIND_IPC));
    EXPECT_EQ(first.addr.family, DM_ADDR_FAMILY_IPC);
    EXPECT_EQ(first.addr.peer_id, kDev);
    EXPECT_EQ(first.msg.src_id, kDev);
    EXPECT_EQ(first.msg.src_type, 0);
    EXPECT_EQ(first.msg.src_index, 255U);
    EXPECT_EQ(seen[1].msg.req_id, first.msg.req_id + 1);
}

TEST_F(Ipc, SecondInterfaceForTheSameDeviceIsRefused)
{
    DM_INTF_ST *first = make();
    ASSERT_NE(first, nullptr);
    DM_ADDR_ST addr = ipc_addr(kDev);
    DM_INTF_ST *again = nullptr;
    EXPECT_EQ(dm_ipc_init(&again, cb_, nullptr, &addr, nullptr, 0), 16);
    EXPECT_EQ(again, nullptr);
    EXPECT_EQ(dm_get_intf(cb_, "dm_ipc7", 32), first);
    device_says("still here");
    EXPECT_EQ(device_hears(), "ack:still here");
}

TEST_F(Ipc, SendPassesOnlyTheLowByteOfTheLength)
{
    DM_INTF_ST *intf = make();
    ASSERT_NE(intf, nullptr);
    std::string bytes(300, '\0');
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<char>('a' + i % 26);
    }
    DM_ADDR_ST to = ipc_addr(kDev);
    DM_DATA_ST data{300, reinterpret_cast<uint8_t *>(bytes.data())};
    ASSERT_EQ(__dm_ipc_send(intf, DM_MSG_REQ, &to, 12, &data, 0), 0);
    EXPECT_EQ(device_hears(), bytes.substr(0, 44));
    data.data_len = 256;
    ASSERT_EQ(intf->send_msg_ex(intf, DM_MSG_RSP, &to, 12, &data, 1, 2, 3), 0);
    EXPECT_EQ(device_hears(), "");
    // The device manager's own refusal comes back unchanged.
    DM_ADDR_ST nobody = ipc_addr(kDev + 100);
    EXPECT_EQ(__dm_ipc_send(intf, DM_MSG_REQ, &nobody, 12, &data, 0), ENOENT);
}

TEST_F(Ipc, InitRefusesBadArguments)
{
    DM_ADDR_ST hdc = ipc_addr(kDev);
    hdc.kind = DM_ADDR_KIND_HDC;
    DM_ADDR_ST wrong_family = ipc_addr(kDev);
    wrong_family.family = DM_ADDR_FAMILY_UDP;
    DM_ADDR_ST good = ipc_addr(kDev);
    const char opt[32] = {};
    EXPECT_EQ(dm_ipc_init(nullptr, cb_, nullptr, &hdc, nullptr, 0), 22);
    EXPECT_EQ(dm_ipc_init(nullptr, cb_, nullptr, &wrong_family, nullptr, 0), 22);
    EXPECT_EQ(dm_ipc_init(nullptr, nullptr, nullptr, &good, nullptr, 0), 22);
    EXPECT_EQ(dm_ipc_init(nullptr, cb_, nullptr, nullptr, nullptr, 0), 22);
    EXPECT_EQ(dm_ipc_init(nullptr, cb_, nullptr, &good, opt, 32), 22);
    EXPECT_EQ(dm_get_intf(cb_, "dm_ipc7", 32), nullptr);
    EXPECT_EQ(dm_ipc_init(nullptr, cb_, nullptr, &good, opt, 31), 0);

    char name[8];
    EXPECT_EQ(dm_ipc_get_intf_name(7, name, sizeof(name)), 0);
    EXPECT_STREQ(name, "dm_ipc7");
    EXPECT_EQ(dm_ipc_get_intf_name(10, name, sizeof(name)), 5); // "dm_ipc10" needs 9
}

TEST_F(Ipc, FailuresBeforeRegistrationLeaveNothingBehind)
{
    DM_ADDR_ST addr = ipc_addr(kDev);
    ASSERT_EQ(host_devmgr_fail_next("open", 1, -19), 0);
    EXPECT_EQ(dm_ipc_init(nullptr, cb_, nullptr, &addr, nullptr, 0), -1);

    t_fail_list_append = 12;
    EXPECT_EQ(dm_ipc_init(nullptr, cb_, nullptr, &addr, nullptr, 0), 12);
    EXPECT_EQ(t_fail_list_append, 0) << "the list was never asked";

    // The poller's refusal closes and releases the record inside the registry.
    t_fail_poller_fd_add = 12;
    EXPECT_EQ(dm_ipc_init(nullptr, cb_, nullptr, &addr, nullptr, 0), 12);
    EXPECT_EQ(t_fail_poller_fd_add, 0) << "the poller was never asked";

    EXPECT_EQ(dm_get_intf(cb_, "dm_ipc7", 32), nullptr);
    ASSERT_NE(make(), nullptr) << "the name must be free again";
}

TEST_F(Ipc, FailedReceiveDropsTheMessage)
{
    ASSERT_NE(make(), nullptr);
    ASSERT_EQ(host_devmgr_fail_next("recv", 1, 71), 0);
    device_says("lost");
    device_says("kept");
    EXPECT_EQ(device_hears(), "ack:kept");
    const auto seen = handler_.wait(1);
    ASSERT_EQ(seen.size(), 1U);
    EXPECT_EQ(seen[0].data, "kept");
}

TEST_F(Ipc, CloseGivesTheDescriptorBackOnlyUnderItsOwnName)
{
    DM_INTF_ST *intf = make();
    ASSERT_NE(intf, nullptr);
    const int fd = intf->fd;
    ASSERT_EQ(dm_intf_deregister(intf), 0);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);

    intf = make();
    ASSERT_NE(intf, nullptr);
    const int kept = intf->fd;
    intf->name[6] = 'X'; // "dm_ipcX": no longer the name its address gives
    ASSERT_EQ(dm_intf_deregister(intf), 0);
    EXPECT_NE(fcntl(kept, F_GETFD), -1) << "closed although the name differs";
    close(kept);
}

} // namespace

// The registry's list and poller, interposed so that a test can make them refuse once.
extern "C" int list_append(LIST_ST *list, void *item)
{
    if (int code = std::exchange(t_fail_list_append, 0); code != 0) {
        return code;
    }
    static const auto next = reinterpret_cast<int (*)(LIST_ST *, void *)>(dlsym(RTLD_NEXT, "list_append"));
    return next(list, item);
}

extern "C" int poller_fd_add(POLLER_ST *poller, int fd, int16_t events, POLLER_FD_CALLBACK cb,
                             void *user_data, int32_t len)
{
    if (int code = std::exchange(t_fail_poller_fd_add, 0); code != 0) {
        return code;
    }
    using Fn = int (*)(POLLER_ST *, int, int16_t, POLLER_FD_CALLBACK, void *, int32_t);
    static const auto next = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "poller_fd_add"));
    return next(poller, fd, events, cb, user_data, len);
}

// Each line the interface writes names the function that reports it, whichever helper
// writes it. Failing copies are provoked call by call until the line appears.
TEST_F(Ipc, EveryLineNamesTheFunctionThatReportsIt)
{
    DM_ADDR_ST addr = ipc_addr(kDev);
    struct Row {
        FaultPoint *point;
        const char *text;
    };
    for (const Row &row : {Row{&g_memset_fault, "memset_s fail: 34"}, Row{&g_strncpy_fault, "strncpy_s error"}}) {
        LogCapture log;
        for (int nth = 0; nth < 8 && !log.contains(row.text); nth++) {
            row.point->arm(nth, 34, FaultFilter{.this_thread = true, .core_only = true});
            DM_INTF_ST *intf = nullptr;
            if (dm_ipc_init(&intf, cb_, nullptr, &addr, nullptr, 0) == 0) {
                dm_intf_deregister(intf);
            }
            disarm_platform_faults();
        }
        EXPECT_TRUE(written_by(log, row.text, "dm_ipc_init")) << log.dump();
    }
    LogCapture log;
    ASSERT_NE(make(), nullptr);
    EXPECT_NE(dm_ipc_init(nullptr, cb_, nullptr, &addr, nullptr, 0), 0);
    EXPECT_TRUE(written_by(log, "duplicate interface [dm_ipc7]", "dm_ipc_init"));
    char small[4];
    EXPECT_NE(dm_ipc_get_intf_name(7, small, sizeof(small)), 0);
    EXPECT_TRUE(written_by(log, "sprintf_s return error", "dm_ipc_get_intf_name"));
}

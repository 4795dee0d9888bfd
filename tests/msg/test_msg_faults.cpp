// Failing bounds-checked memory calls, one call at a time, during dm_init, selfloop_init
// and dm_send_req: every failure is reported and leaves nothing behind (no descriptor,
// no registration, no pending record; the sanitizer builds check memory).
#include <set>
#include <unistd.h>

#include "msg_test_support.h"

using namespace msg_test;

namespace {

// Calls `attempt(k)` with the core library's k-th call of each memory function armed to
// fail, k = 0, 1, ..., until an attempt no longer reaches that call. An attempt disarms
// the injection right after the operation under test.
template <typename Attempt> void sweep(Attempt attempt)
{
    for (FaultPoint *point : {&g_memset_fault, &g_memcpy_fault, &g_memmove_fault}) {
        for (int k = 0;; k++) {
            fail_core_call(*point, k);
            attempt(k);
            if (!mem_failure_fired()) {
                break;
            }
        }
    }
}

int32_t echo(DM_INTF_ST *intf, DM_MSG_ST *msg, void *, uint32_t)
{
    return dm_send_rsp(intf, msg->addr, msg->addr_len, &msg->data, msg->req_id);
}

} // namespace

TEST(Faults, DmInitUndoesEverythingItBuilt)
{
    const int fds = open_fds();
    sweep([&](int k) {
        // A stale handle in the caller's variable must be cleared by any failure.
        DM_CB_ST stale{};
        DM_CB_ST *cb = &stale;
        LogCapture log;
        int ret = dm_init(&cb);
        disarm_platform_faults();
        // The one failure dm_init shrugs off is that of the probe timer with which it
        // waits for the poller thread to start.
        EXPECT_TRUE(ret == 0 || mem_failure_fired()) << "call " << k;
        EXPECT_TRUE(ret == 0 || cb == nullptr) << "call " << k;
        EXPECT_FALSE(log.contains("Assert:")) << "a descriptor closed twice, call " << k;
        dm_destroy(cb);
        EXPECT_EQ(open_fds(), fds) << "call " << k;
    });
}

TEST(Faults, SelfloopInitLeavesNothingBehindWhicheverStepFails)
{
    Context ctx;
    const int fds = open_fds();
    bool poller_refused = false;
    sweep([&](int k) {
        DM_INTF_ST *intf = nullptr;
        LogCapture log;
        int ret = selfloop_init(&intf, ctx.cb, nullptr, "aux", 0);
        disarm_platform_faults();
        EXPECT_EQ(ret != 0, mem_failure_fired()) << "call " << k;
        poller_refused = poller_refused || log.contains("memset_s fail!\n"); // the poller's words
        EXPECT_FALSE(log.contains("Assert:")) << "call " << k;
        if (ret == 0) {
            const int pipe_fds[2] = {intf->fd, intf->wfd};
            EXPECT_EQ(dm_intf_deregister(intf), 0);
            close(pipe_fds[0]); // kept open by the close slot of any self-loop but "selfloop"
            close(pipe_fds[1]);
        }
        EXPECT_EQ(dm_get_intf(ctx.cb, "aux", 4), nullptr) << "call " << k;
        EXPECT_EQ(open_fds(), fds) << "call " << k;
    });
    // Among the cases: the poller's refusal, after which the framework has already closed
    // and released the record.
    EXPECT_TRUE(poller_refused);
}

TEST(Faults, DmSendReqDropsTheRequestWhenAnyStepFails)
{
    Context ctx;
    ASSERT_EQ(dm_cmd_register(ctx.cb, echo, nullptr, nullptr, 1), 0);
    Recorder rec;
    std::set<int> codes;
    int sent = 0;
    sweep([&](int k) {
        int ret = send_text(ctx.loop(), "payload", &rec);
        disarm_platform_faults();
        codes.insert(ret);
        sent += ret == 0 ? 1 : 0;
        EXPECT_EQ(ret != 0, mem_failure_fired()) << "call " << k;
        EXPECT_TRUE(wait_until([&] { return rec.calls == sent; }));
        EXPECT_TRUE(wait_until([&] { return list_size(ctx.cb->pending_list) == 0; }));
    });
    std::this_thread::sleep_for(150ms); // a time-out, had a dropped request kept its timer
    EXPECT_EQ(rec.calls, sent);
    EXPECT_EQ(codes, (std::set<int>{0, DM_ERR_SEND, DM_ERR_PENDING_ADD}));
}

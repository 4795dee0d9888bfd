// Failing bounds-checked memory calls, one call at a time, during dm_init, selfloop_init
// and dm_send_req: every failure is reported and leaves nothing behind (no descriptor,
// no registration, no pending record; the sanitizer builds check memory).
#include <set>
#include <unistd.h>

#include "msg_test_support.h"

using namespace msg_test;

namespace {

const MemFn kAllFns[] = {MemFn::kMemset, MemFn::kMemcpy, MemFn::kMemmove};

// Runs `attempt` with the k-th call of `fn` failing, k = 0, 1, ..., until an attempt
// makes fewer than k+1 calls, so that nothing failed. The attempt disarms the injection
// (clear_mem_failure) right after the operation under test; `check(ret, hit)` judges
// each outcome.
template <typename Attempt, typename Check> void sweep(MemFn fn, Attempt attempt, Check check)
{
    for (int k = 0;; k++) {
        fail_mem_call(fn, k);
        int ret = attempt();
        const bool hit = mem_failure_fired();
        check(ret, hit);
        if (!hit) {
            return;
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
    for (MemFn fn : kAllFns) {
        int k = 0;
        sweep(fn, [&] {
            DM_CB_ST *cb = nullptr;
            LogCapture log;
            int ret = dm_init(&cb);
            clear_mem_failure();
            if (ret != 0) {
                EXPECT_EQ(cb, nullptr) << "call " << k;
                EXPECT_FALSE(log.contains("Assert:")) << "a descriptor was closed twice, call " << k;
            }
            dm_destroy(cb);
            EXPECT_EQ(open_fds(), fds) << "call " << k;
            return ret;
        // dm_init shrugs off one kind of failure: that of the probe timer with which it
        // waits for the poller thread to start.
        }, [&](int ret, bool hit) { EXPECT_TRUE(hit || ret == 0) << "call " << k++; });
    }
}

TEST(Faults, SelfloopInitLeavesNothingBehindWhicheverStepFails)
{
    Context ctx;
    const int fds = open_fds();
    bool poller_refused = false;
    for (MemFn fn : kAllFns) {
        sweep(fn, [&] {
            DM_INTF_ST *intf = nullptr;
            LogCapture log;
            int ret = selfloop_init(&intf, ctx.cb, nullptr, "aux", 0);
            clear_mem_failure();
            // Only the poller says this; the list says nothing.
            poller_refused = poller_refused || log.contains("memset_s fail!\n");
            EXPECT_FALSE(log.contains("Assert:"));
            if (ret == 0) {
                const int fd = intf->fd;
                const int wfd = intf->wfd;
                EXPECT_EQ(dm_intf_deregister(intf), 0);
                close(fd);
                close(wfd);
            }
            EXPECT_EQ(dm_get_intf(ctx.cb, "aux", 4), nullptr);
            EXPECT_EQ(open_fds(), fds);
            return ret;
        }, [](int ret, bool hit) { EXPECT_EQ(ret != 0, hit); });
    }
    // The refusal by the poller, after which the framework has closed and released the
    // record already, was among the cases.
    EXPECT_TRUE(poller_refused);
}

TEST(Faults, DmSendReqDropsTheRequestWhenAnyStepFails)
{
    Context ctx;
    ASSERT_EQ(dm_cmd_register(ctx.cb, echo, nullptr, nullptr, 1), 0);
    DM_INTF_ST *loop = ctx.loop();
    Recorder rec;
    std::set<int> codes;
    int sent = 0;
    for (MemFn fn : kAllFns) {
        sweep(fn,
              [&] {
                  int ret = send_text(loop, "payload", &rec);
                  clear_mem_failure();
                  return ret;
              },
              [&](int ret, bool hit) {
                  codes.insert(ret);
                  sent += ret == 0;
                  EXPECT_EQ(ret != 0, hit);
                  ASSERT_TRUE(wait_for([&] { return rec.calls == sent; }));
                  ASSERT_TRUE(wait_for([&] { return list_size(ctx.cb->pending_list) == 0; }));
              });
    }
    std::this_thread::sleep_for(150ms); // a time-out, had a dropped request kept its timer
    EXPECT_EQ(rec.calls, sent);
    EXPECT_EQ(codes, (std::set<int>{0, DM_ERR_SEND, DM_ERR_PENDING_ADD}));
}

// SPDX-License-Identifier: Apache-2.0
// Failing bounds-checked memory calls, one call at a time, during dm_init, selfloop_init
// and dm_send_req: every failure is reported and leaves nothing behind (no descriptor,
// no registration, no pending record; the sanitizer builds check memory).
#include <functional>
#include <set>
#include <unistd.h>

#include "msg_test_support.h"
#include "support/log_writer.h"

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

namespace {

// One logged failure: what provokes it (the operation, and the memory function whose
// failing call it needs, if any), its text and the function it must name.
struct LogRow {
    const char *what;
    FaultPoint *point; // null: the operation alone provokes the line
    std::function<void()> op;
    const char *text;
    const char *writer;
};

// With a fault point, fails its calls one by one (0, 1, ...) until the text shows up.
// Operations disarm right after the call under test, before any clean-up.
void check_row(const LogRow &row)
{
    SCOPED_TRACE(row.what);
    for (int k = 0; row.point != nullptr; k++) {
        LogCapture log;
        fail_core_call(*row.point, k);
        row.op();
        disarm_platform_faults();
        if (log.contains(row.text)) {
            EXPECT_TRUE(written_by(log, row.text, row.writer));
            return;
        }
        if (!mem_failure_fired()) {
            ADD_FAILURE() << "no failing call logs \"" << row.text << "\"";
            return;
        }
    }
    LogCapture log;
    row.op();
    wait_until([&] { return log.contains(row.text); });
    EXPECT_TRUE(written_by(log, row.text, row.writer));
}

void init_and_destroy()
{
    DM_CB_ST *cb = nullptr;
    (void)dm_init(&cb);
    disarm_platform_faults();
    dm_destroy(cb);
}

} // namespace

TEST(Faults, EveryLineNamesTheFunctionThatReportsIt)
{
    Recorder rec; // outlives the contexts: time-out answers may still reach it
    Context quiet; // no command registered: requests go unanswered and time out
    Context reg;
    DM_INTF_ST *loop = quiet.loop();
    ASSERT_NE(loop, nullptr);
    auto send = [&] {
        (void)send_text(loop, "x", &rec);
        disarm_platform_faults();
    };
    auto retry_once = [&] {
        loop->set_retry(loop, 1, 20);
        send();
        loop->set_retry(loop, 0, 100);
    };
    auto oversized = [&] {
        DM_DATA_ST big{DM_MAX_DATA_LEN + 1, nullptr};
        (void)loop->send_msg(loop, DM_MSG_REQ, &loop->addr, DM_ADDR_LEN, &big, 1);
    };
    auto write_raw = [&](size_t len) {
        return [&, len] {
            SELF_MSG_ST frame{};
            EXPECT_EQ(write(loop->wfd, &frame, len), static_cast<ssize_t>(len));
        };
    };
    auto aux_init = [&] {
        DM_INTF_ST *intf = nullptr;
        int ret = selfloop_init(&intf, quiet.cb, nullptr, "aux", 0);
        disarm_platform_faults();
        if (ret == 0) {
            const int fds[2] = {intf->fd, intf->wfd};
            EXPECT_EQ(dm_intf_deregister(intf), 0);
            close(fds[0]); // kept open by the close slot of any self-loop but "selfloop"
            close(fds[1]);
        }
    };
    auto dup_init = [&] { (void)selfloop_init(nullptr, quiet.cb, nullptr, nullptr, 0); };
    auto cmd_register = [&] {
        uint64_t user_data = 1;
        (void)dm_cmd_register(reg.cb, nullptr, nullptr, &user_data, sizeof(user_data));
        disarm_platform_faults();
    };
    FaultPoint *memset_p = &g_memset_fault;
    const LogRow rows[] = {
        {"dm_init zeroing", memset_p, init_and_destroy, "memset_s fail: ", "dm_init"},
        {"poller_create", memset_p, init_and_destroy, "call poller_create fail,ret:", "dm_init"},
        {"interface list", memset_p, init_and_destroy, "create intf list fail,ret:", "dm_init"},
        {"pending list", memset_p, init_and_destroy, "create pending list fail,ret:", "dm_init"},
        {"command list", memset_p, init_and_destroy, "create cmd_reg_list fail,ret:", "dm_init"},
        {"self-loop", memset_p, init_and_destroy, "selfloop init fail,ret:", "dm_init"},
        {"dm_init(null)", nullptr, [] { (void)dm_init(nullptr); }, "dm_init input dm_cb null.",
         "dm_init"},
        {"register null", nullptr, [] { (void)dm_intf_register(nullptr, nullptr); },
         "dm_intf_register input cb or intf null.", "dm_intf_register"},
        {"long name", nullptr, [&] { (void)dm_get_intf(quiet.cb, "x", 33); },
         "dm_get_intf input cb or name null", "dm_get_intf"},
        {"registration zeroing", memset_p, cmd_register, "memset_s fail: ", "dm_cmd_register"},
        {"user data copy", &g_memcpy_fault, cmd_register, "memcpy_s error\n", "dm_cmd_register"},
        {"pending zeroing", memset_p, send, "memset_s fail: ", "__dm_pending_req_add"},
        {"pending copy", &g_memmove_fault, send, "memmove_s error\n", "__dm_pending_req_add"},
        {"frame zeroing", memset_p, send, "__selfloop_send: memset_s fail.errno=", "__selfloop_send"},
        {"frame payload", &g_memcpy_fault, send, "memcpy_s error\n", "__selfloop_send"},
        {"oversized payload", nullptr, oversized, "__selfloop_send: msg->data_len too long",
         "__selfloop_send"},
        {"frame received", nullptr, send, "selfloop data_len 1, 0x78\n", "__selfloop_recv"},
        {"no handler", nullptr, send, "no handler for a request on interface [selfloop], dropped\n",
         "__dm_cmd_handle"},
        {"re-send", nullptr, retry_once, "process timeout, retry call intf->send_msg ret = 0\n",
         "__dm_timeout_handle"},
        {"time-out handler", nullptr, send, "finish call intf->timeout_hndl\n", "__dm_timeout_handle"},
        {"time-out answer", nullptr, send, "finish call dm_send_rsp\n", "__dm_timeout_handle"},
        {"empty frame", nullptr, write_raw(SELF_MSG_HEADER_LEN),
         "__selfloop_recv: msg->data_len too long=0\r\n", "__selfloop_recv"},
        {"short header", nullptr, write_raw(10), "Drv_check:ret == (sizeof(SELF_MSG_ST) - 4096)",
         "__selfloop_recv"},
        {"short header errno", nullptr, write_raw(10), "errno=", "__selfloop_recv"},
        {"record zeroing", memset_p, aux_init, "memset_s fail:", "selfloop_init"},
        {"record zeroing check", memset_p, aux_init, "Drv_check:ret == 0", "selfloop_init"},
        {"name copy", &g_strncpy_fault, aux_init, "strncpy_s error\n", "selfloop_init"},
        {"duplicate", nullptr, dup_init, "duplicate interface [selfloop]\r\n", "selfloop_init"},
        {"duplicate check", nullptr, dup_init, "Drv_check:intf == ((void *)0)", "selfloop_init"},
    };
    for (const LogRow &row : rows) {
        check_row(row);
    }
}

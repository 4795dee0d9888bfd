// SPDX-License-Identifier: Apache-2.0
// The framework context (dm_init, dm_destroy), the interface registry, the receive path
// that turns a readable descriptor into a dispatched message, and the debug flag.
#include <sys/ioctl.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>

#include "common/dm_log.h"
#include "dm_loop.h"
#include "dm_msg.h"
#include "msg/dm_msg_internal.h"
#include "poller/poller_hooks.h"

// The error-line limiter shared by every file of this unit.
DM_LOG_DEFINE_UNIT()

// The self-loop copies addresses verbatim into its frames and peers read them back.
static_assert(sizeof(DM_ADDR_ST) == DM_ADDR_LEN);
static_assert(offsetof(DM_ADDR_ST, kind) == 0);
static_assert(offsetof(DM_ADDR_ST, family) == 4);
static_assert(offsetof(DM_ADDR_ST, pad) == 6);
static_assert(offsetof(DM_ADDR_ST, peer_id) == 8);
static_assert(offsetof(DM_ADDR_ST, sa) == 12);
// The interface list compares records and bare names alike.
static_assert(offsetof(DM_INTF_ST, name) == 0);

uint32_t g_dev_mon_debug = 5;

namespace velmar::msg {

bool same_name(const char *a, const char *b) { return strncmp(a, b, DM_INTF_NAME_LEN) == 0; }

int32_t __dm_intf_cmp(void *item, void *key)
{
    if (item == nullptr || key == nullptr) {
        return -22;
    }
    // The name is the record's first field, so a record and a bare name compare alike.
    return strncmp(static_cast<const char *>(item), static_cast<const char *>(key),
                   DM_INTF_NAME_LEN);
}

void __dm_intf_free(void *item)
{
    auto *intf = static_cast<DM_INTF_ST *>(item);
    if (intf == nullptr) {
        return;
    }
    if (intf->close != nullptr) {
        intf->close(intf);
    }
    free(intf);
}

} // namespace velmar::msg

using namespace velmar::msg;

namespace {

constexpr uint32_t kDestroyGraceMs = 100;
constexpr int kRecvBatch = 32;

int __dm_recv(int fd, int events, void *user_data, uint32_t user_data_len);

// What the poller keeps for each registered interface and hands to __dm_recv: the
// interface, whether its receive may be asked speculatively for one more message, and
// how its recent wake-ups went. Only the poller thread touches it.
struct RecvSlot {
    DM_INTF_ST *intf;
    uint32_t speculative;   // the transport answers kSpeculativeRead quietly
    IntfCounters *counters; // the registration's block: no look-up per frame
    uint32_t lone_wakeups; // wake-ups in a row that found a single message
    uint32_t events;
};

} // namespace

namespace velmar::msg {

// The registration itself. Which step refused the record is known only here, so the
// result says who owns it: the caller, or the list (which has closed and released it, on
// whichever thread let go of it last).
int intf_register(DM_CB_ST *dm_cb, DM_INTF_ST *intf, bool *released, bool speculative_reads)
{
    *released = false;
    int ret = list_append(dm_cb->intf_list, intf);
    if (ret != 0) {
        return ret;
    }
    Context *ctx = context_of(dm_cb);
    RecvSlot slot{intf, speculative_reads ? 1U : 0U, stats_attach(ctx, intf), 0, 0};
    ret = poller_fd_add(dm_cb->poller, intf->fd, 1, __dm_recv, &slot, sizeof(slot));
    if (ret != 0) {
        stats_detach(ctx, intf);
        // The list owns the record now: taking it out closes and releases it.
        list_remove_by_tag(dm_cb->intf_list, intf, __dm_intf_cmp);
        *released = true;
    }
    return ret;
}

} // namespace velmar::msg

namespace {

void __dm_msg_dispatch(DM_INTF_ST *intf, DM_MSG_ST *msg, IntfCounters *counters)
{
    if (msg->type == DM_MSG_REQ) {
        __dm_cmd_handle(intf, msg, counters);
    } else if (msg->type == DM_MSG_RSP) {
        __dm_rsp_handle(intf, msg, counters);
    }
}


// Counts wake-ups that brought a single message, and forgets them when one brings more.
void __dm_note_wakeup(RecvSlot *slot, bool more)
{
    slot->lone_wakeups = more ? 0 : slot->lone_wakeups + 1;
}

// Whether to try for another message after the `read`-th of this wake-up. Asking is a
// system call (a probe of the descriptor, or a speculative receive that may find
// nothing), wasted on an interface that gets one message per wake-up: after two such
// wake-ups in a row it asks on every eighth wake-up only, until one brings more. Not
// asking loses nothing: poll() reports the descriptor again.
bool __dm_try_another(RecvSlot *slot, int fd, int read)
{
    if (read == 1 && slot->lone_wakeups >= 2 && (++slot->events & 7U) != 0) {
        return false;
    }
    if (slot->speculative != 0) {
        return true; // the receive itself tells, quietly, when nothing is left
    }
    int bytes = 0;
    const bool more = ioctl(fd, FIONREAD, &bytes) == 0 && bytes > 0;
    if (read == 1) {
        __dm_note_wakeup(slot, more);
    }
    return more;
}

uint32_t __dm_intf_generation(Context *ctx)
{
    return std::atomic_ref<uint32_t>(ctx->intf_generation).load(std::memory_order_acquire);
}

// One readiness event. A busy interface has more messages waiting than the one that woke
// the poller: reading them now, in arrival order, saves a poll() and a loop pass for
// each. The batch is bounded so that one interface cannot starve the others or the
// timers, and it stops when a handler destroys the context or releases an interface.
int __dm_recv(int fd, int events, void *user_data, uint32_t user_data_len)
{
    if (user_data == nullptr || user_data_len != sizeof(RecvSlot)) {
        return 0;
    }
    auto *slot = static_cast<RecvSlot *>(user_data);
    DM_INTF_ST *intf = slot->intf;
    if (intf == nullptr || intf->recv_msg == nullptr || intf->dm_cb == nullptr) {
        return 0;
    }
    Context *ctx = context_of(intf->dm_cb);
    CallbackScope scope(ctx);
    if (scope.closing()) {
        return 0;
    }
    auto *data = static_cast<uint8_t *>(malloc(DM_MAX_DATA_LEN));
    if (data == nullptr) {
        DM_CHECK_FAILED("(data != ((void *)0))");
        return 0;
    }
    const uint32_t generation = __dm_intf_generation(ctx);
    for (int read = 1;; read++) {
        if (memset_s(data, DM_MAX_DATA_LEN, 0, DM_MAX_DATA_LEN) != 0) {
            break;
        }
        DM_ADDR_ST addr{};
        DM_MSG_ST msg{};
        msg.addr = &addr;
        msg.addr_len = DM_ADDR_LEN;
        msg.data.data_len = DM_MAX_DATA_LEN;
        msg.data.data = data;
        const int16_t asked = read == 1 ? static_cast<int16_t>(events) : kSpeculativeEvents;
        const int32_t got = intf->recv_msg(intf, fd, asked, &msg);
        if (read == 2 && slot->speculative != 0) {
            __dm_note_wakeup(slot, got != kRecvNothing);
        }
        if (read > 1 && got == kRecvNothing) {
            break;
        }
        if (got == 0) {
            // A wake-up without data to read (an error or hang-up event) reads nothing.
            if ((events & 0x0001) != 0) {
                VELMAR_COUNT(slot->counters, received);
            }
            __dm_msg_dispatch(intf, &msg, slot->counters);
        } else {
            VELMAR_COUNT(slot->counters, malformed);
        }
        if (read == kRecvBatch || (events & 0x0001) == 0 || scope.closing() ||
            __dm_intf_generation(ctx) != generation || !__dm_try_another(slot, fd, read)) {
            break;
        }
    }
    free(data);
    return 0;
}

int __dm_poller_probe(uint32_t period_ms, int32_t elapsed_ms, void *user_data,
                      uint32_t user_data_len)
{
    (void)period_ms;
    (void)elapsed_ms;
    (void)user_data_len;
    std::atomic_ref<uint32_t>(**static_cast<uint32_t **>(user_data)).store(1);
    return 0;
}

// Until the poller thread has started, the poller still counts as idle, and
// poller_destory would release it at once under the starting thread; a context that
// fails or is destroyed right after poller_run must not hit that window. A timer fires
// only inside the loop, so dm_init arms a probe before it starts the thread (the first
// pass then waits for the probe, not for its usual 50 ms) and waits for it afterwards.
class PollerStartProbe {
public:
    explicit PollerStartProbe(POLLER_ST *poller)
    {
        uint32_t *flag = &fired_;
        armed_ = poller_timer_add(poller, 0, __dm_poller_probe, &flag, sizeof(flag), nullptr) == 0;
    }
    // Call only once poller_run has succeeded.
    void wait()
    {
        if (!armed_) {
            mmSleep(kDestroyGraceMs); // no probe to be had: a thread starts far sooner
            return;
        }
        while (std::atomic_ref<uint32_t>(fired_).load() == 0) {
            mmSleep(1);
        }
    }
    PollerStartProbe(const PollerStartProbe &) = delete;
    PollerStartProbe &operator=(const PollerStartProbe &) = delete;

private:
    uint32_t fired_ = 0;
    bool armed_ = false;
};

// Creates what a context owns, in order, stopping at the first failure. Logs as `writer`.
int __dm_build_context(DM_CB_ST *cb, const char *writer)
{
    int ret = poller_create(&cb->poller);
    if (ret != 0) {
        DM_LOG_ERR_AS(writer, "call poller_create fail,ret:%d\r\n", ret);
        return ret;
    }
    // Without a thread the probe never fires; the poller's release frees it.
    PollerStartProbe probe(cb->poller);
    ret = poller_run(cb->poller);
    if (ret != 0) {
        DM_LOG_ERR_AS(writer, "call poller_run fail,ret:%d\r\n", ret);
        return ret;
    }
    probe.wait();
    ret = list_create(&cb->intf_list, __dm_intf_cmp, __dm_intf_free);
    if (ret != 0) {
        DM_LOG_ERR_AS(writer, "create intf list fail,ret:%d\r\n", ret);
        return ret;
    }
    ret = list_create(&cb->pending_list, __dm_pending_cmp, __dm_pending_free);
    if (ret != 0) {
        DM_LOG_ERR_AS(writer, "create pending list fail,ret:%d\r\n", ret);
        return ret;
    }
    ret = list_create(&cb->cmd_reg_list, __dm_cmd_cmp, __dm_cmd_free);
    if (ret != 0) {
        DM_LOG_ERR_AS(writer, "create cmd_reg_list fail,ret:%d\r\n", ret);
        return ret;
    }
    ret = selfloop_init(nullptr, cb, nullptr, nullptr, 0);
    if (ret != 0) {
        DM_LOG_ERR_AS(writer, "selfloop init fail,ret:%d\r\n", ret);
    }
    return ret;
}

// Releases what the context owns once its poller thread is gone.
void __dm_finish_destroy(void *arg)
{
    auto *ctx = static_cast<Context *>(arg);
    DM_CB_ST *cb = &ctx->cb;
    if (cb->pending_list != nullptr) {
        destroy_pending_list(cb);
    }
    if (cb->intf_list != nullptr) {
        list_destroy(cb->intf_list);
    }
    if (cb->cmd_reg_list != nullptr) {
        list_destroy(cb->cmd_reg_list);
    }
    ctx->requests.~RequestTable();
    ctx->stats.~StatsTable();
    free(ctx);
}

// The poller thread finishes the callback it is running before it leaves. The fixed
// grace covers an ordinary pass; a callback that outlasts it is waited for, and the pass
// it belonged to then gets the grace once more to reach its end (every later callback of
// that pass returns at once, since `closing` is set).
void __dm_wait_for_callbacks(Context *ctx)
{
    mmSleep(kDestroyGraceMs);
    std::atomic_ref<uint32_t> in_flight(ctx->in_flight);
    if (in_flight.load() == 0) {
        return;
    }
    while (in_flight.load() != 0) {
        mmSleep(1);
    }
    mmSleep(kDestroyGraceMs);
}

} // namespace

extern "C" {

uint32_t dev_mon_get_log_flag(void)
{
    return std::atomic_ref<uint32_t>(g_dev_mon_debug).load(std::memory_order_relaxed);
}

void dev_mon_set_log_flag(uint32_t value)
{
    std::atomic_ref<uint32_t>(g_dev_mon_debug).store(value, std::memory_order_relaxed);
}

int dm_init(DM_CB_ST **dm_cb)
{
    if (dm_cb == nullptr) {
        DM_LOG_ERR("dm_init input dm_cb null.");
        return -22;
    }
    *dm_cb = nullptr; // a caller that tests the handle must never see a stale one
    auto *ctx = static_cast<Context *>(malloc(sizeof(Context)));
    if (ctx == nullptr) {
        DM_LOG_ERR("dm_init malloc cb error.");
        return -12;
    }
    int ret = memset_s(ctx, sizeof(Context), 0, sizeof(Context));
    if (ret != 0) {
        DM_LOG_ERR("memset_s fail: %d\n", ret);
        free(ctx);
        return ret;
    }
    new (&ctx->requests) RequestTable();
    new (&ctx->stats) StatsTable();
    *dm_cb = &ctx->cb;
    ret = __dm_build_context(&ctx->cb, __func__);
    if (ret != 0) {
        dm_destroy(&ctx->cb);
        *dm_cb = nullptr;
    }
    return ret;
}

void dm_destroy(DM_CB_ST *dm_cb)
{
    if (dm_cb == nullptr) {
        return;
    }
    Context *ctx = context_of(dm_cb);
    std::atomic_ref<uint32_t>(ctx->closing).store(1);
    POLLER_ST *poller = dm_cb->poller;
    if (poller != nullptr && velmar::poller::on_poll_thread(poller)) {
        // Called from a handler or a callback of this very context: waiting for the
        // callbacks to end would wait for ourselves, and the frames below us still use
        // the lists. `closing` already stops every later callback; the poll thread
        // releases the rest as the last thing it does, once this pass is over.
        velmar::poller::set_exit_hook(poller, __dm_finish_destroy, ctx);
        poller_destory(poller);
        return;
    }
    if (poller != nullptr) {
        poller_destory(poller);
    }
    __dm_wait_for_callbacks(ctx);
    __dm_finish_destroy(ctx);
}

int dm_intf_register(DM_CB_ST *dm_cb, DM_INTF_ST *intf)
{
    if (dm_cb == nullptr || intf == nullptr) {
        DM_LOG_ERR("dm_intf_register input cb or intf null.\n");
        return -22;
    }
    bool released = false;
    return intf_register(dm_cb, intf, &released, false);
}

int dm_intf_deregister(DM_INTF_ST *intf)
{
    if (intf == nullptr) {
        DM_LOG_ERR("dm_intf_deregister input intf null.\n");
        return -22;
    }
    DM_CB_ST *cb = intf->dm_cb;
    int ret = poller_fd_remove(cb->poller, intf->fd, 1);
    if (ret != 0) {
        return ret;
    }
    std::atomic_ref<uint32_t>(context_of(cb)->intf_generation).fetch_add(1, std::memory_order_acq_rel);
    stats_detach(context_of(cb), intf);
    return list_remove_by_tag(cb->intf_list, intf, __dm_intf_cmp);
}

DM_INTF_ST *dm_get_intf(DM_CB_ST *dm_cb, const char *name, int name_len)
{
    if (dm_cb == nullptr || name == nullptr || name_len > DM_INTF_NAME_LEN) {
        DM_LOG_ERR("dm_get_intf input cb or name null ,name len %d larger than %d\n", name_len,
                   DM_INTF_NAME_LEN);
        return nullptr;
    }
    LIST_ITER_ST iter{};
    list_iter_init(dm_cb->intf_list, &iter);
    DM_INTF_ST *found = nullptr;
    while (LIST_NODE_ST *node = list_iter_next(&iter)) {
        auto *intf = static_cast<DM_INTF_ST *>(list_to_item(node));
        if (intf == nullptr) {
            list_iter_destroy(&iter);
            DM_LOG_ERR("dm_get_intf:tmp is null!\n");
            return nullptr;
        }
        if (same_name(intf->name, name)) {
            found = intf;
            break;
        }
    }
    list_iter_destroy(&iter);
    return found;
}

} // extern "C"

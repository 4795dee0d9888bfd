// A request that timed out still held the handle of the timer that fired. Timer handles
// are entry addresses, compared by value, and the allocator may give a later timer the
// same address; deleting the old request must not remove that newer timer.
//
// This program makes the reuse certain: it interposes poller_timer_add and
// poller_timer_remove and hands out handles from a small table, lowest free slot first,
// freeing a slot as soon as its timer has fired, just as an allocator frees the entry.
#include <dlfcn.h>

#include <cstring>
#include <thread>

#include "msg_test_support.h"

using namespace msg_test;

namespace {

struct Slot {
    bool used;
    void *real;
    POLLER_TIMER_CALLBACK cb;
    unsigned char data[8];
};
Slot g_slots[64];
std::recursive_mutex g_slots_mutex;
std::vector<void *> g_handed_out; // every handle given to an 8-byte-user-data caller

template <typename Fn> Fn real(const char *name) { return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name)); }

int trampoline(uint32_t period, int32_t elapsed, void *user_data, uint32_t len)
{
    Slot *slot = *static_cast<Slot **>(user_data);
    unsigned char data[8];
    POLLER_TIMER_CALLBACK cb = nullptr;
    {
        std::lock_guard<std::recursive_mutex> guard(g_slots_mutex);
        cb = slot->cb;
        memcpy(data, slot->data, sizeof(data));
        slot->used = false;
    }
    return cb(period, elapsed, data, len);
}

} // namespace

extern "C" int poller_timer_add(POLLER_ST *poller, uint32_t ms, POLLER_TIMER_CALLBACK cb,
                                void *user_data, int32_t len, void **handle)
{
    static auto add = real<int (*)(POLLER_ST *, uint32_t, POLLER_TIMER_CALLBACK, void *, int32_t, void **)>(
        "poller_timer_add");
    if (user_data == nullptr || len != 8) {
        return add(poller, ms, cb, user_data, len, handle);
    }
    std::lock_guard<std::recursive_mutex> guard(g_slots_mutex);
    Slot *slot = g_slots;
    while (slot->used) {
        slot++;
    }
    slot->used = true;
    slot->cb = cb;
    memcpy(slot->data, user_data, sizeof(slot->data));
    int ret = add(poller, ms, trampoline, &slot, sizeof(slot), &slot->real);
    if (ret != 0) {
        slot->used = false;
        return ret;
    }
    g_handed_out.push_back(slot);
    if (handle != nullptr) {
        *handle = slot;
    }
    return 0;
}

extern "C" int poller_timer_remove(POLLER_ST *poller, void **handle)
{
    static auto remove = real<int (*)(POLLER_ST *, void **)>("poller_timer_remove");
    auto *slot = handle != nullptr ? static_cast<Slot *>(*handle) : nullptr;
    if (slot < g_slots || slot >= g_slots + 64) {
        return remove(poller, handle);
    }
    std::lock_guard<std::recursive_mutex> guard(g_slots_mutex);
    if (!slot->used) {
        return 0;
    }
    slot->used = false;
    return remove(poller, &slot->real);
}

namespace {

DM_SEND_MSG_FN g_real_send = nullptr;
Recorder g_a;
Recorder g_b;
std::atomic<int> g_b_send_result{-1};
size_t g_a_handle_index = 0;

int32_t drop_requests(DM_INTF_ST *intf, uint32_t type, DM_ADDR_ST *addr, uint32_t addr_len,
                      DM_DATA_ST *data, uint64_t req_id)
{
    return type == DM_MSG_REQ ? 0 : g_real_send(intf, type, addr, addr_len, data, req_id);
}

// A's time-out answer: send B from inside it. A's timer has fired, so B's timer gets
// A's old handle; A is deleted right after this callback returns.
int32_t on_a(DM_INTF_ST *intf, DM_MSG_ST *msg, void *, uint32_t)
{
    g_a.add(intf, msg);
    intf->set_retry(intf, 0, 60);
    g_b_send_result = send_text(intf, "B", &g_b);
    return 0;
}

} // namespace

TEST(StaleTimer, DeletingATimedOutRequestLeavesANewerTimerAlone)
{
    Context ctx;
    DM_INTF_ST *loop = ctx.loop();
    g_real_send = loop->send_msg;
    loop->send_msg = drop_requests;
    loop->timeout_hndl = [](DM_DATA_ST *, DM_DATA_ST *) -> int32_t { return 0; };
    loop->set_retry(loop, 0, 20);
    DM_DATA_ST data = data_of("A");
    Recorder *unused = nullptr;
    {
        std::lock_guard<std::recursive_mutex> guard(g_slots_mutex);
        g_a_handle_index = g_handed_out.size();
    }
    ASSERT_EQ(dm_send_req(loop, &loop->addr, 40, &data, on_a, &unused, sizeof(unused)), 0);
    ASSERT_TRUE(wait_for([] { return g_a.calls == 1; }));
    EXPECT_EQ(g_b_send_result, 0);
    // B times out on its own, one period later, however A was deleted.
    EXPECT_TRUE(wait_for([] { return g_b.calls == 1; }, 2s));
    std::lock_guard<std::recursive_mutex> guard(g_slots_mutex);
    ASSERT_EQ(g_handed_out.size(), g_a_handle_index + 2);
    EXPECT_EQ(g_handed_out[g_a_handle_index], g_handed_out[g_a_handle_index + 1])
        << "the handle was not reused, so this run proves nothing";
}

// SPDX-License-Identifier: Apache-2.0
// Programs that replace poller functions to make a rare moment certain.
//
// A request that timed out still held the handle of the timer that had fired. Handles
// are entry addresses, compared by value, and the allocator may give a newer timer the
// same address: deleting the old request must not remove that newer timer. This program
// makes the reuse certain by interposing the poller's timer functions and handing out
// handles from a table, lowest free slot first, a slot being freed when its timer fires.
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
    unsigned char data[16];
};
Slot g_slots[64];
std::recursive_mutex g_mutex;
std::vector<void *> g_handed_out;

template <typename Fn> Fn next_fn(const char *name) { return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name)); }

int trampoline(uint32_t period, int32_t elapsed, void *user_data, uint32_t len)
{
    Slot *slot = *static_cast<Slot **>(user_data);
    unsigned char data[sizeof(Slot::data)];
    std::unique_lock<std::recursive_mutex> guard(g_mutex);
    memcpy(data, slot->data, sizeof(data));
    slot->used = false;
    guard.unlock();
    (void)len;
    return slot->cb(period, elapsed, data, sizeof(data));
}

} // namespace

extern "C" int poller_timer_add(POLLER_ST *poller, uint32_t ms, POLLER_TIMER_CALLBACK cb, void *user_data,
                                int32_t len, void **handle)
{
    static auto add = next_fn<decltype(&poller_timer_add)>("poller_timer_add");
    if (user_data == nullptr || len != static_cast<int32_t>(sizeof(Slot::data))) {
        return add(poller, ms, cb, user_data, len, handle);
    }
    std::lock_guard<std::recursive_mutex> guard(g_mutex);
    Slot *slot = g_slots;
    while (slot->used) {
        slot++;
    }
    *slot = Slot{true, nullptr, cb, {}};
    memcpy(slot->data, user_data, sizeof(slot->data));
    int ret = add(poller, ms, trampoline, &slot, sizeof(slot), &slot->real);
    slot->used = ret == 0;
    if (ret == 0 && handle != nullptr) {
        g_handed_out.push_back(slot);
        *handle = slot;
    }
    return ret;
}

extern "C" int poller_timer_remove(POLLER_ST *poller, void **handle)
{
    static auto remove = next_fn<decltype(&poller_timer_remove)>("poller_timer_remove");
    auto *slot = handle != nullptr ? static_cast<Slot *>(*handle) : nullptr;
    if (slot < g_slots || slot >= g_slots + 64) {
        return remove(poller, handle);
    }
    std::lock_guard<std::recursive_mutex> guard(g_mutex);
    const bool used = slot->used;
    slot->used = false;
    return used ? remove(poller, &slot->real) : 0;
}

namespace {

DM_SEND_MSG_FN g_real_send = nullptr;
Recorder g_a;
Recorder g_b;

// A's time-out answer sends B: A's timer has fired, so B's timer gets A's old handle;
// A is deleted right after this callback returns.
int32_t on_a(DM_INTF_ST *intf, DM_MSG_ST *msg, void *, uint32_t)
{
    g_a.add(intf, msg);
    intf->set_retry(intf, 0, 60);
    EXPECT_EQ(send_text(intf, "B", &g_b), 0);
    return 0;
}

} // namespace

TEST(StaleTimer, DeletingATimedOutRequestLeavesANewerTimerAlone)
{
    Context ctx;
    DM_INTF_ST *loop = ctx.loop();
    g_real_send = loop->send_msg;
    loop->send_msg = [](DM_INTF_ST *intf, uint32_t type, DM_ADDR_ST *addr, uint32_t len, DM_DATA_ST *data,
                        uint64_t id) { return type == DM_MSG_REQ ? 0 : g_real_send(intf, type, addr, len, data, id); };
    loop->timeout_hndl = [](DM_DATA_ST *, DM_DATA_ST *) -> int32_t { return 0; };
    loop->set_retry(loop, 0, 20);
    DM_DATA_ST data = data_of("A");
    Recorder *unused = nullptr;
    ASSERT_EQ(dm_send_req(loop, &loop->addr, 40, &data, on_a, &unused, sizeof(unused)), 0);
    ASSERT_TRUE(wait_until([] { return g_a.calls == 1; }));
    // B times out on its own, one period later, however A was deleted.
    EXPECT_TRUE(wait_until([] { return g_b.calls == 1; }, 2s));
    std::lock_guard<std::recursive_mutex> guard(g_mutex);
    ASSERT_EQ(g_handed_out.size(), 2U);
    EXPECT_EQ(g_handed_out[0], g_handed_out[1]) << "no handle was reused: this run proves nothing";
}

// A registration that the poller refuses while another thread's iterator stands on the
// new node: the list then releases the record on that thread, later. The transport must
// learn from the call that the record is gone, not from which thread ran its close slot.
namespace {

std::atomic<int> g_refuse_fd_add{0};
std::atomic<int> g_walker_holds{0};
std::atomic<int> g_walker_may_go{0};
LIST_ST *g_walked = nullptr;

} // namespace

extern "C" int poller_fd_add(POLLER_ST *poller, int fd, int16_t events, POLLER_FD_CALLBACK cb, void *user_data,
                             int32_t len)
{
    static auto add = next_fn<decltype(&poller_fd_add)>("poller_fd_add");
    if (g_refuse_fd_add.exchange(0) == 0) {
        return add(poller, fd, events, cb, user_data, len);
    }
    while (g_walker_holds == 0) {
        std::this_thread::yield();
    }
    return 12;
}

TEST(RefusedRegistration, ARecordReleasedOnAnotherThreadIsNotReleasedAgain)
{
    Context ctx;
    const int fds = open_fds();
    g_walked = ctx.cb->intf_list;
    std::thread walker([] {
        LIST_ITER_ST iter{};
        list_iter_init(g_walked, &iter);
        for (;;) {
            LIST_NODE_ST *node = list_iter_next(&iter);
            if (node == nullptr) {
                list_iter_destroy(&iter);
                list_iter_init(g_walked, &iter); // not appended yet: walk again
                continue;
            }
            if (strcmp(static_cast<DM_INTF_ST *>(list_to_item(node))->name, "victim") == 0) {
                break;
            }
        }
        g_walker_holds = 1;
        while (g_walker_may_go == 0) {
            std::this_thread::yield();
        }
        list_iter_destroy(&iter); // the last reference: the record is closed and freed here
    });
    g_refuse_fd_add = 1;
    EXPECT_EQ(selfloop_init(nullptr, ctx.cb, nullptr, "victim", 0), 12);
    g_walker_may_go = 1;
    walker.join();
    EXPECT_EQ(dm_get_intf(ctx.cb, "victim", 7), nullptr);
    EXPECT_EQ(open_fds(), fds);
}

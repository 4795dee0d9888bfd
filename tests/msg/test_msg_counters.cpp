// SPDX-License-Identifier: Apache-2.0
// The counters (velmar_dm_get_stats): each event moves its counters by the expected
// amount and leaves every other counter of the context and its interfaces alone.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "../udp/udp_test_support.h"
#include "dm_udp.h"
#include "msg_test_support.h"
#include "velmar_ext.h"

namespace {

using namespace msg_test;
using namespace udp_test;

using Field = uint64_t VELMAR_DM_STATS::*;
const std::map<std::string, Field> kFields = {
    {"frames_sent", &VELMAR_DM_STATS::frames_sent},
    {"frames_received", &VELMAR_DM_STATS::frames_received},
    {"requests_resent", &VELMAR_DM_STATS::requests_resent},
    {"requests_timed_out", &VELMAR_DM_STATS::requests_timed_out},
    {"answers_matched", &VELMAR_DM_STATS::answers_matched},
    {"answers_dropped", &VELMAR_DM_STATS::answers_dropped},
    {"frames_malformed", &VELMAR_DM_STATS::frames_malformed},
    {"send_failures", &VELMAR_DM_STATS::send_failures},
    {"pipe_full", &VELMAR_DM_STATS::pipe_full},
    {"requests_unhandled", &VELMAR_DM_STATS::requests_unhandled},
};
const char *const kIntfs[] = {"selfloop", "udp", "side"};

VELMAR_DM_STATS stats_of(DM_CB_ST *cb, const char *name)
{
    VELMAR_DM_STATS s{};
    s.size = sizeof(s);
    EXPECT_EQ(velmar_dm_get_stats(cb, name, &s), 0) << name;
    return s;
}

int32_t echo(DM_INTF_ST *intf, DM_MSG_ST *msg, void *, uint32_t)
{
    return dm_send_rsp(intf, msg->addr, msg->addr_len, &msg->data, msg->req_id);
}

int32_t stand_in(DM_DATA_ST *, DM_DATA_ST *rsp)
{
    rsp->data_len = 0;
    return 0;
}

// A context with its self-loop, a UDP interface on loopback, a second self-loop and a
// raw socket that plays the UDP peer.
struct World {
    Context ctx;
    DM_INTF_ST *udp = nullptr;
    DM_INTF_ST *side = nullptr;
    RawPeer peer;
    Recorder rec;
    World()
    {
        DM_ADDR_ST addr = loopback_addr(0);
        EXPECT_EQ(dm_udp_init(&udp, ctx.cb, stand_in, &addr, "udp", 3), 0);
        udp->addr = loopback_addr(bound_port(udp->fd));
        EXPECT_EQ(selfloop_init(&side, ctx.cb, nullptr, "side", 4), 0);
    }
    // A request from the UDP interface to the raw peer, which reads it: its req_id.
    uint64_t request_to_peer(int32_t retries, uint32_t period_ms = 30)
    {
        udp->set_retry(udp, retries, period_ms);
        DM_ADDR_ST to = peer.addr();
        DM_DATA_ST data = data_of("q");
        Recorder *r = &rec;
        EXPECT_EQ(dm_send_req(udp, &to, DM_UDP_ADDR_LEN, &data, record_rsp, &r, sizeof(r)), 0);
        DM_UDP_MSG_ST frame{};
        EXPECT_GT(peer.receive(&frame), 0);
        return frame.req_id;
    }
    void from_peer(const DM_UDP_MSG_ST &frame) { peer.send(frame, bound_port(udp->fd)); }
    bool idle()
    {
        VELMAR_DM_STATS s{};
        s.size = sizeof(s);
        return velmar_dm_get_stats(ctx.cb, nullptr, &s) == 0 && s.pending_now == 0;
    }
};

struct Row {
    const char *event;
    std::function<void(World &)> setup;   // before the counters are read
    std::function<void(World &)> provoke; // returns once the event has fully happened
    std::map<std::string, std::map<std::string, uint64_t>> moves; // interface -> field -> by
};

const std::vector<Row> kRows = {
    {"a request on the self-loop answered by a handler",
     [](World &w) { ASSERT_EQ(dm_cmd_register(w.ctx.cb, echo, nullptr, nullptr, 1), 0); },
     [](World &w) {
         ASSERT_EQ(send_text(w.ctx.loop(), "ping", &w.rec), 0);
         ASSERT_TRUE(wait_until([&] { return w.rec.calls == 1; }));
     },
     {{"selfloop", {{"frames_sent", 2}, {"frames_received", 2}, {"answers_matched", 1}}}}},
    {"a request re-sent once, then timed out",
     nullptr,
     [](World &w) {
         w.request_to_peer(1);
         ASSERT_TRUE(wait_until([&] { return w.rec.calls == 1; }));
     },
     {{"udp", {{"frames_sent", 2}, {"requests_resent", 1}, {"requests_timed_out", 1}}},
      {"selfloop", {{"frames_sent", 1}, {"frames_received", 1}}}}},
    {"a late answer (after its time-out)",
     [](World &w) {
         const uint64_t id = w.request_to_peer(0);
         ASSERT_TRUE(wait_until([&] { return w.rec.calls == 1; }));
         w.rec.req_ids.assign(1, id);
     },
     [](World &w) {
         w.from_peer(make_frame(DM_MSG_RSP, w.rec.req_ids[0], "late"));
         ASSERT_TRUE(wait_until([&] { return stats_of(w.ctx.cb, "udp").answers_dropped == 1; }));
     },
     {{"udp", {{"frames_received", 1}, {"answers_dropped", 1}}}}},
    {"a malformed datagram",
     nullptr,
     [](World &w) {
         DM_UDP_MSG_ST junk = make_frame(DM_MSG_REQ, 7, "x");
         junk.marker = 2;
         w.from_peer(junk);
         ASSERT_TRUE(wait_until([&] { return stats_of(w.ctx.cb, "udp").frames_malformed == 1; }));
     },
     {{"udp", {{"frames_malformed", 1}}}}},
    {"a request with no handler",
     nullptr,
     [](World &w) {
         w.from_peer(make_frame(DM_MSG_REQ, 9, "who"));
         ASSERT_TRUE(wait_until([&] { return stats_of(w.ctx.cb, "udp").requests_unhandled == 1; }));
     },
     {{"udp", {{"frames_received", 1}, {"requests_unhandled", 1}}}}},
    {"a send its transport refuses",
     nullptr,
     [](World &w) {
         DM_ADDR_ST to = w.peer.addr();
         DM_DATA_ST too_long{DM_MAX_DATA_LEN + 1, w.udp->addr.sa};
         ASSERT_NE(dm_send_rsp(w.udp, &to, DM_UDP_ADDR_LEN, &too_long, 1), 0);
     },
     {{"udp", {{"send_failures", 1}}}}},
    {"a send refused for a full self-loop pipe",
     [](World &w) {
         // Nobody drains the pipe once the poller lets go of it.
         ASSERT_EQ(poller_fd_remove(w.ctx.cb->poller, w.side->fd, 1), 0);
         const std::string big(DM_MAX_DATA_LEN, 'b');
         DM_DATA_ST data = data_of(big);
         int sent = 0;
         while (dm_send_rsp(w.side, &w.side->addr, 6, &data, 1) == 0 && ++sent < 100000) {
         }
         ASSERT_LT(sent, 100000);
     },
     [](World &w) {
         const std::string big(DM_MAX_DATA_LEN, 'c');
         DM_DATA_ST data = data_of(big);
         ASSERT_EQ(dm_send_rsp(w.side, &w.side->addr, 6, &data, 1), EAGAIN);
     },
     {{"side", {{"pipe_full", 1}, {"send_failures", 1}}}}},
};

TEST(Counters, EachEventMovesItsCountersAndNoOthers)
{
    for (const Row &row : kRows) {
        SCOPED_TRACE(row.event);
        World w;
        if (row.setup) {
            row.setup(w);
        }
        ASSERT_TRUE(wait_until([&] { return w.idle(); }));
        std::map<std::string, VELMAR_DM_STATS> before;
        for (const char *name : kIntfs) {
            before[name] = stats_of(w.ctx.cb, name);
        }
        row.provoke(w);
        ASSERT_TRUE(wait_until([&] { return w.idle(); }));
        for (const char *name : kIntfs) {
            const VELMAR_DM_STATS after = stats_of(w.ctx.cb, name);
            for (const auto &[field, member] : kFields) {
                uint64_t by = 0;
                if (auto in = row.moves.find(name); in != row.moves.end()) {
                    auto f = in->second.find(field);
                    by = f != in->second.end() ? f->second : 0;
                }
                EXPECT_EQ(after.*member - before[name].*member, by) << name << "." << field;
            }
        }
    }
}

TEST(Counters, PendingNowAndMostEverPending)
{
    World w;
    for (int i = 0; i < 3; i++) {
        w.request_to_peer(0, 300);
    }
    VELMAR_DM_STATS s = stats_of(w.ctx.cb, nullptr);
    EXPECT_EQ(s.pending_now, 3U);
    EXPECT_EQ(s.pending_max, 3U);
    ASSERT_TRUE(wait_until([&] { return w.rec.calls == 3; }));
    ASSERT_TRUE(wait_until([&] { return w.idle(); }));
    EXPECT_EQ(stats_of(w.ctx.cb, nullptr).pending_max, 3U);
}

TEST(Counters, RecordGrowsWithoutBreakingOldCallersAndRefusals)
{
    World w;
    VELMAR_DM_STATS s{};
    s.size = offsetof(VELMAR_DM_STATS, pending_max) + 4; // an old caller's shorter record
    s.pending_max = 77;
    EXPECT_EQ(velmar_dm_get_stats(w.ctx.cb, "udp", &s), 0);
    EXPECT_EQ(s.size, offsetof(VELMAR_DM_STATS, pending_max));
    EXPECT_EQ(s.pending_max, 77U) << "filled beyond the caller's record";
    s.size = sizeof(s) + 64; // a newer caller's longer record
    EXPECT_EQ(velmar_dm_get_stats(w.ctx.cb, "udp", &s), 0);
    EXPECT_EQ(s.size, sizeof(s));
    s.size = 8;
    EXPECT_EQ(velmar_dm_get_stats(w.ctx.cb, nullptr, &s), -22);
    s.size = sizeof(s);
    EXPECT_EQ(velmar_dm_get_stats(nullptr, nullptr, &s), -22);
    EXPECT_EQ(velmar_dm_get_stats(w.ctx.cb, nullptr, nullptr), -22);
    EXPECT_EQ(velmar_dm_get_stats(w.ctx.cb, "nosuch", &s), -2);
}

} // namespace

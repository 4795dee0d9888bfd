// SPDX-License-Identifier: Apache-2.0
// The context, the registry and the self-loop's own rules: argument checks with their
// codes and log lines, lookups, the receive path, and what dm_destroy leaves behind.
#include <thread>

#include "host_platform.h"
#include "msg_test_support.h"

using namespace msg_test;

namespace {

int32_t failing_send(DM_INTF_ST *, uint32_t, DM_ADDR_ST *, uint32_t, DM_DATA_ST *, uint64_t) { return 5; }

struct ErrorCase {
    const char *what;
    long (*call)(DM_CB_ST *cb);
    long code;
    const char *log; // expected line, or null for none
};

DM_DATA_ST g_some = {1, reinterpret_cast<uint8_t *>(const_cast<char *>("x"))};
uint8_t g_oversized[DM_MAX_DATA_LEN + 1];

long send_req(DM_CB_ST *cb, bool intf, bool addr, uint32_t addr_len, bool data, uint32_t user_len)
{
    DM_INTF_ST *loop = dm_get_intf(cb, "selfloop", 9);
    void *user = cb;
    return dm_send_req(intf ? loop : nullptr, addr ? &loop->addr : nullptr, addr_len,
                       data ? &g_some : nullptr, nullptr, &user, user_len);
}

const ErrorCase kErrorCases[] = {
    {"dm_init null", [](DM_CB_ST *) -> long { return dm_init(nullptr); }, -22, "dm_init input dm_cb null."},
    {"register null intf", [](DM_CB_ST *cb) -> long { return dm_intf_register(cb, nullptr); }, -22,
     "dm_intf_register input cb or intf null.\n"},
    {"deregister null", [](DM_CB_ST *) -> long { return dm_intf_deregister(nullptr); }, -22,
     "dm_intf_deregister input intf null.\n"},
    {"cmd size 0", [](DM_CB_ST *cb) -> long { return dm_cmd_register(cb, nullptr, nullptr, nullptr, 0); },
     -22, "dm_cmd_register input dm_cb null!\n"},
    {"cmd deregister", [](DM_CB_ST *cb) -> long { return dm_cmd_deregister(cb) * 100 + dm_cmd_deregister(nullptr); },
     -22, nullptr},
    {"name_len 33", [](DM_CB_ST *cb) -> long { return dm_get_intf(cb, "selfloop", 33) == nullptr ? 0 : 1; }, 0,
     "dm_get_intf input cb or name null ,name len 33 larger than 32\n"},
    {"name_len 32", [](DM_CB_ST *cb) -> long { return dm_get_intf(cb, "selfloop", 32) == nullptr ? 1 : 0; }, 0,
     nullptr},
    {"duplicate selfloop", [](DM_CB_ST *cb) -> long { return selfloop_init(nullptr, cb, nullptr, "selfloop", 0); },
     16, "duplicate interface [selfloop]\r\n"},
    {"selfloop no context", [](DM_CB_ST *) -> long { return selfloop_init(nullptr, nullptr, nullptr, "x", 0); },
     22, nullptr},
    {"selfloop udp address",
     [](DM_CB_ST *cb) -> long {
         DM_ADDR_ST udp{DM_ADDR_KIND_UDP, DM_ADDR_FAMILY_UDP, 0, 0, {}};
         return selfloop_init(nullptr, cb, &udp, "x", 0);
     },
     22, nullptr},
    {"payload 4097",
     [](DM_CB_ST *cb) -> long {
         DM_INTF_ST *loop = dm_get_intf(cb, "selfloop", 9);
         DM_DATA_ST big{DM_MAX_DATA_LEN + 1, g_oversized};
         return loop->send_msg(loop, DM_MSG_RSP, &loop->addr, 40, &big, 0);
     },
     22, "__selfloop_send: msg->data_len too long.msg->data_len=4097\n"},
    {"req null intf", [](DM_CB_ST *cb) { return send_req(cb, false, true, 40, true, 8); }, 3, nullptr},
    {"req null addr", [](DM_CB_ST *cb) { return send_req(cb, true, false, 40, true, 8); }, 3, nullptr},
    {"req addr_len 0", [](DM_CB_ST *cb) { return send_req(cb, true, true, 0, true, 8); }, 3, nullptr},
    {"req null data", [](DM_CB_ST *cb) { return send_req(cb, true, true, 40, false, 8); }, 3, nullptr},
    {"req user_data_len 0", [](DM_CB_ST *cb) { return send_req(cb, true, true, 40, true, 0); }, 48, nullptr},
    {"req send fails",
     [](DM_CB_ST *cb) -> long {
         DM_INTF_ST *loop = dm_get_intf(cb, "selfloop", 9);
         loop->send_msg = failing_send;
         long ret = send_req(cb, true, true, 40, true, 8);
         return list_size(cb->pending_list) == 0 ? ret : -1;
     },
     27, nullptr},
};

class Errors : public ::testing::TestWithParam<ErrorCase> {};

} // namespace

TEST_P(Errors, ReturnTheirCodeAndLogTheirLine)
{
    const ErrorCase &c = GetParam();
    Context ctx;
    LogCapture log;
    EXPECT_EQ(c.call(ctx.cb), c.code) << c.what;
    if (c.log != nullptr) {
        EXPECT_TRUE(log.contains(c.log)) << c.what;
    }
}

INSTANTIATE_TEST_SUITE_P(Table, Errors, ::testing::ValuesIn(kErrorCases));

TEST(Selfloop, ReceiveRulesOnAPipeReadByHand)
{
    Context ctx;
    DM_INTF_ST *aux = nullptr;
    ASSERT_EQ(selfloop_init(&aux, ctx.cb, nullptr, "aux", 0), 0);
    ASSERT_EQ(poller_fd_remove(ctx.cb->poller, aux->fd, 1), 0);
    DM_ADDR_ST to = aux->addr;
    to.peer_id = 7;
    DM_DATA_ST two = data_of("hi");
    // An empty payload still needs a valid pointer: the copy refuses a null source.
    DM_DATA_ST no_data{0, nullptr};
    EXPECT_EQ(aux->send_msg(aux, DM_MSG_RSP, &to, 40, &no_data, 9), HOST_SEC_EINVAL);
    DM_DATA_ST empty{0, two.data};
    ASSERT_EQ(aux->send_msg(aux, DM_MSG_RSP, &to, 40, &empty, 9), 0);
    ASSERT_EQ(aux->send_msg(aux, DM_MSG_RSP, &to, 40, &two, 0xabc), 0);
    ASSERT_EQ(aux->send_msg(aux, DM_MSG_REQ, &to, 40, &two, 1), 0);

    std::vector<uint8_t> buf(DM_MAX_DATA_LEN, 0);
    DM_ADDR_ST from{};
    DM_MSG_ST msg{};
    msg.addr = &from;
    msg.addr_len = 40;
    msg.data = DM_DATA_ST{DM_MAX_DATA_LEN, buf.data()};
    // Without the readable bit nothing is read and nothing changes.
    EXPECT_EQ(aux->recv_msg(aux, aux->fd, 0x0004, &msg), 0);
    EXPECT_EQ(msg.addr_len, 40U);
    {
        LogCapture log;
        EXPECT_EQ(aux->recv_msg(aux, aux->fd, 1, &msg), -1);
        EXPECT_TRUE(log.contains("__selfloop_recv: msg->data_len too long=0\r\n"));
    }
    EXPECT_EQ(aux->recv_msg(aux, aux->fd, 1, &msg), 0);
    EXPECT_EQ(msg.type, 1U);
    EXPECT_EQ(msg.req_id, 0xabcU);
    EXPECT_EQ(msg.addr_len, 6U);
    EXPECT_EQ(from.peer_id, 7U);
    EXPECT_EQ(msg.src_type, 1);
    EXPECT_EQ(msg.src_index, 1U);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(buf.data()), msg.data.data_len), "hi");
    // A buffer too small for the payload: the frame is consumed, the payload dropped.
    buf[0] = 0;
    msg.data.data_len = 1;
    EXPECT_EQ(aux->recv_msg(aux, aux->fd, 1, &msg), 0);
    EXPECT_EQ(msg.data.data_len, 1);
    EXPECT_EQ(buf[0], 0);
    close(aux->fd);
    close(aux->wfd);
}

namespace {

std::atomic<int> g_slow_state{0};

int32_t slow_rsp(DM_INTF_ST *, DM_MSG_ST *, void *, uint32_t)
{
    g_slow_state = 1;
    std::this_thread::sleep_for(300ms);
    g_slow_state = 2;
    return 0;
}

} // namespace

TEST(Lifecycle, DestroyReleasesPendingRequestsAndInterfacesAndCallsNothingLater)
{
    DM_CB_ST *cb = nullptr;
    ASSERT_EQ(dm_init(&cb), 0);
    ASSERT_EQ(dm_cmd_register(cb, nullptr, nullptr, nullptr, 1), 0); // swallows requests
    DM_INTF_ST *loop = dm_get_intf(cb, "selfloop", 9);
    DM_INTF_ST *aux[2] = {};
    ASSERT_EQ(selfloop_init(&aux[0], cb, nullptr, "aux0", 0), 0);
    ASSERT_EQ(selfloop_init(&aux[1], cb, nullptr, "aux1", 0), 0);
    const int loop_fds[2] = {loop->fd, loop->wfd};
    const int aux_fds[4] = {aux[0]->fd, aux[0]->wfd, aux[1]->fd, aux[1]->wfd};
    loop->set_retry(loop, 2, 60000);
    aux[0]->set_retry(aux[0], -1, 0);
    aux[1]->set_retry(aux[1], 0, 20);
    aux[1]->timeout_hndl = [](DM_DATA_ST *, DM_DATA_ST *) -> int32_t { return 0; };
    Recorder rec;
    for (int i = 0; i < 5; i++) {
        ASSERT_EQ(send_text(loop, "armed", &rec), 0);
        ASSERT_EQ(send_text(aux[0], "untimed", &rec), 0);
    }
    // A time-out whose callback is still running when dm_destroy starts.
    DM_DATA_ST data = data_of("slow");
    ASSERT_EQ(dm_send_req(aux[1], &aux[1]->addr, 40, &data, slow_rsp, &cb, 8), 0);
    ASSERT_TRUE(wait_until([] { return g_slow_state == 1; }));
    EXPECT_EQ(list_size(cb->pending_list), 11U); // aux0 has no timers: a period of 0 never fires
    dm_destroy(cb);
    EXPECT_EQ(g_slow_state, 2) << "dm_destroy returned while a callback was running";
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(rec.calls, 0);
    EXPECT_FALSE(fd_is_open(loop_fds[0]) || fd_is_open(loop_fds[1]));
    for (int fd : aux_fds) {
        EXPECT_TRUE(fd_is_open(fd));
        close(fd);
    }
}

/* SPDX-License-Identifier: Apache-2.0 */
// Behaviour every transport must show, written once as a typed GoogleTest suite.
//
// A transport is described by a traits type:
//   static int make(DM_CB_ST *cb, const char *name, DM_INTF_ST **out);
//       its init function: makes and registers an interface named `name`
//   static constexpr int kDuplicate;
//       what that init returns for a name that is registered already
//   static DM_ADDR_ST peer(DM_INTF_ST *intf, uint32_t *addr_len);
//       an address through which a message sent on `intf` comes back to `intf`
//   static void closed(int fd, int wfd);
//       called after the interface was closed, with its descriptors
// and stamped out with
//   INSTANTIATE_TYPED_TEST_SUITE_P(Name, TransportConformance, Traits);
#pragma once

#include "msg_test_support.h"

namespace msg_test {

// Answers a request with "re:" and its payload, or with the payload itself when the
// request fills a whole message.
inline int32_t conformance_echo(DM_INTF_ST *intf, DM_MSG_ST *msg, void *, uint32_t)
{
    std::string in(reinterpret_cast<char *>(msg->data.data), msg->data.data_len);
    std::string out = in.size() == DM_MAX_DATA_LEN ? in : "re:" + in;
    DM_DATA_ST rsp = data_of(out);
    return dm_send_rsp(intf, msg->addr, msg->addr_len, &rsp, msg->req_id);
}

template <typename T> class TransportConformance : public ::testing::Test {
protected:
    DM_INTF_ST *make(const char *name)
    {
        DM_INTF_ST *intf = nullptr;
        EXPECT_EQ(T::make(ctx.cb, name, &intf), 0);
        return intf;
    }
    int request(DM_INTF_ST *intf, const std::string &text, Recorder *rec)
    {
        uint32_t addr_len = 0;
        DM_ADDR_ST peer = T::peer(intf, &addr_len);
        DM_DATA_ST data = data_of(text);
        return dm_send_req(intf, &peer, addr_len, &data, record_rsp, &rec, sizeof(rec));
    }
    void deregister(DM_INTF_ST *intf)
    {
        const int fd = intf->fd;
        const int wfd = intf->wfd;
        EXPECT_EQ(dm_intf_deregister(intf), 0);
        T::closed(fd, wfd);
    }
    Context ctx;
};

TYPED_TEST_SUITE_P(TransportConformance);

TYPED_TEST_P(TransportConformance, RegistersOnceAndRefusesADuplicateName)
{
    DM_INTF_ST *intf = this->make("conformance");
    ASSERT_NE(intf, nullptr);
    EXPECT_EQ(dm_get_intf(this->ctx.cb, "conformance", 12), intf);
    EXPECT_EQ(intf->dm_cb, this->ctx.cb);
    DM_INTF_ST *again = nullptr;
    EXPECT_EQ(TypeParam::make(this->ctx.cb, "conformance", &again), TypeParam::kDuplicate);
    EXPECT_EQ(again, nullptr);
    this->deregister(intf);
    EXPECT_EQ(dm_get_intf(this->ctx.cb, "conformance", 12), nullptr);
}

TYPED_TEST_P(TransportConformance, ExchangesMessagesUpToTheLimitAndRefusesLarger)
{
    ASSERT_EQ(dm_cmd_register(this->ctx.cb, conformance_echo, nullptr, nullptr, 1), 0);
    DM_INTF_ST *intf = this->make("conformance");
    ASSERT_NE(intf, nullptr);
    std::string full(DM_MAX_DATA_LEN, 'f');
    full.back() = 'L';
    Recorder rec;
    ASSERT_EQ(this->request(intf, "hello", &rec), 0);
    ASSERT_EQ(this->request(intf, full, &rec), 0);
    ASSERT_TRUE(wait_until([&] { return rec.calls == 2; }));
    EXPECT_EQ(rec.payload(0), "re:hello");
    EXPECT_EQ(rec.payload(1), full);
    EXPECT_EQ(rec.last_intf, intf);
    EXPECT_EQ(this->request(intf, full + "x", &rec), DM_ERR_SEND);
    EXPECT_EQ(list_size(this->ctx.cb->pending_list), 0U);
    this->deregister(intf);
}

REGISTER_TYPED_TEST_SUITE_P(TransportConformance, RegistersOnceAndRefusesADuplicateName,
                            ExchangesMessagesUpToTheLimitAndRefusesLarger);

} // namespace msg_test

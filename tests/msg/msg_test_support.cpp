// SPDX-License-Identifier: Apache-2.0
#include "msg_test_support.h"

#include <cstring>

namespace msg_test {

namespace {
FaultPoint *g_armed = nullptr;
} // namespace

void fail_core_call(FaultPoint &point, int nth, int code)
{
    g_armed = &point;
    point.arm(nth, code, FaultFilter{.this_thread = true, .core_only = true});
}

bool mem_failure_fired() { return g_armed != nullptr && g_armed->fired(); }

Context::Context() { EXPECT_EQ(dm_init(&cb), 0); }

Context::~Context() { dm_destroy(cb); }

void Recorder::add(DM_INTF_ST *intf, const DM_MSG_ST *msg)
{
    std::lock_guard<std::mutex> guard(mutex);
    payloads.emplace_back(reinterpret_cast<const char *>(msg->data.data), msg->data.data_len);
    req_ids.push_back(msg->req_id);
    last_addr_len = msg->addr_len;
    last_intf = intf;
    calls++;
}

std::string Recorder::payload(size_t i)
{
    std::lock_guard<std::mutex> guard(mutex);
    return i < payloads.size() ? payloads[i] : std::string("<none>");
}

int32_t record_rsp(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user_data, uint32_t len)
{
    EXPECT_EQ(len, sizeof(Recorder *));
    (*static_cast<Recorder **>(user_data))->add(intf, msg);
    return 0;
}

DM_DATA_ST data_of(const std::string &text)
{
    return DM_DATA_ST{static_cast<uint16_t>(text.size()),
                      reinterpret_cast<uint8_t *>(const_cast<char *>(text.data()))};
}

DM_DATA_ST data_of(const char *literal)
{
    return DM_DATA_ST{static_cast<uint16_t>(strlen(literal)),
                      reinterpret_cast<uint8_t *>(const_cast<char *>(literal))};
}

int send_text(DM_INTF_ST *intf, const std::string &text, Recorder *rec)
{
    DM_DATA_ST data = data_of(text);
    return dm_send_req(intf, &intf->addr, sizeof(DM_ADDR_ST), &data, record_rsp, &rec, sizeof(rec));
}

} // namespace msg_test

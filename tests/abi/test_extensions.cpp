// SPDX-License-Identifier: Apache-2.0
// The velmar_ extensions as a program sees them: the version it can ask the loaded
// library, and return codes read by the function that returned them.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "velmar_sastox.h"

namespace {

TEST(Version, LibraryHeadersAndProjectAgree)
{
    const std::string composed = std::to_string(VELMAR_SASTOX_VERSION_MAJOR) + "." +
                                 std::to_string(VELMAR_SASTOX_VERSION_MINOR) + "." +
                                 std::to_string(VELMAR_SASTOX_VERSION_PATCH);
    EXPECT_EQ(composed, VELMAR_SASTOX_VERSION_STRING);
    EXPECT_STREQ(velmar_version(), VELMAR_PROJECT_VERSION);
    EXPECT_STREQ(velmar_version(), VELMAR_SASTOX_VERSION_STRING);
}

struct Row {
    const char *function;
    long long code;
    std::vector<const char *> says; // every one must appear in the reading
};

// The same number in different layers, both signs, the OS layer's unsigned codes as
// they are and after an int conversion, pass-through errno and HAL codes, and names
// that tell nothing.
const std::vector<Row> kRows = {
    {"dm_send_req", DM_ERR_INVALID_ARG, {"DM_ERR_INVALID_ARG"}},
    {"dm_send_req", DM_ERR_SEND, {"DM_ERR_SEND"}},
    {"dm_send_req", DM_ERR_PENDING_ADD, {"DM_ERR_PENDING_ADD"}},
    {"dm_send_req", 22, {"not a result"}},
    {"dm_init", -22, {"null"}},
    {"dm_init", 22, {"EINVAL"}},
    {"dm_cmd_register", -12, {"allocated"}},
    {"dm_udp_init", 16, {"already registered"}},
    {"dm_udp_init", -16, {"not a result"}},
    {"dm_udp_init", 98, {"EADDRINUSE"}},
    {"dm_hdc_init", -16, {"already registered"}},
    {"dm_hdc_init", 5, {"formatted", "HAL", "simulator directory"}},
    {"dm_hdc_init", 98, {"HAL", "live server"}},
    {"dm_hdc_get_intf_name", 5, {"sprintf_s"}},
    {"dm_send_rsp", 48, {"answered at most once"}},
    {"__dm_ipc_send", 2, {"ENOENT"}},
    {"smbus_msg_send", -22, {"32 bytes"}},
    {"poller_run", 1, {"wrong state"}},
    {"list_append", 12, {"ENOMEM"}},
    {"hash_table_put2", 162, {"does not fit"}},
    {"vos_sm_p", 0x20000203, {"time-out"}},
    {"vos_sm_p", 0x20000204, {"dead lock"}},
    {"thread_timed_mutex_init", 0x20000213, {"lock type"}},
    {"vos_queue_read", 0x20000519, {"time-out"}},
    {"vos_queue_read", 0xFFFFFFFFLL, {"read failed"}},
    {"vos_queue_read", -1, {"read failed"}},
    {"vos_get_current_task_id", 0xFFFFFFFFLL, {"found nothing"}},
    {"vos_create_task", 0x20000001, {"control block"}},
    {"osal_create_task", 5, {"priority"}},
    {nullptr, 27, {"ambiguous", "DM_ERR_SEND", "EFBIG"}},
    {nullptr, -22, {"ambiguous", "negative errno", "EINVAL"}},
    {"no_such_function", 0x20000204, {"ambiguous", "dead lock"}},
    {nullptr, 123456789, {"ambiguous", "no layer"}},
    {nullptr, 0, {"success"}},
};

TEST(Strerror, ReadsEachCodeByTheFunctionThatReturnedIt)
{
    for (const Row &row : kRows) {
        const char *text = velmar_strerror(row.function, row.code);
        ASSERT_NE(text, nullptr);
        const std::string where =
            std::string(row.function ? row.function : "(null)") + " " + std::to_string(row.code);
        for (const char *part : row.says) {
            EXPECT_NE(std::string(text).find(part), std::string::npos)
                << where << " reads \"" << text << "\", without \"" << part << "\"";
        }
        EXPECT_EQ(velmar_strerror(row.function, row.code), text) << where << ": not stable";
    }
}

// Composed readings are kept in one shared set: many threads asking at once for readings
// never asked before must each get a whole, lasting text (run under the tsan preset).
TEST(Strerror, AnyThreadAtOnce)
{
    std::vector<std::thread> threads;
    std::vector<std::vector<const char *>> seen(4);
    for (size_t t = 0; t < seen.size(); ++t) {
        threads.emplace_back([t, &seen] {
            for (long long code = 1; code < 140; ++code) {
                seen[t].push_back(velmar_strerror(t % 2 ? nullptr : "dm_udp_init", code));
            }
        });
    }
    for (std::thread &th : threads) {
        th.join();
    }
    for (size_t t = 2; t < seen.size(); ++t) {
        EXPECT_EQ(seen[t], seen[t - 2]); // the same interned texts, whichever thread made them
    }
}

} // namespace

// SPDX-License-Identifier: Apache-2.0
// Two daemons in two processes of one machine: this test program and hdc_peer, one the
// HDC server and the other the client, in both arrangements.
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "hdc/hdc_test_support.h"

using namespace hdc_test;

namespace {

// Requests of 0, 10, 40 and 4096 bytes go out whole; 5000 bytes go out as a bare header.
const std::vector<size_t> kSent = {0, 10, 40, 4096, 5000};
const std::vector<size_t> kArrived = {0, 10, 40, 4096, 0};
// Bytes 8 to 11 as the receiver recomputes them: the length less 12, or 0 below 12.
const std::vector<uint32_t> kWord = {0, 0, 28, 4084, 0};

std::string next_line(FILE *peer)
{
    char line[256] = "";
    if (fgets(line, sizeof(line), peer) == nullptr) {
        return "";
    }
    std::string text = line;
    return text.substr(0, text.find('\n'));
}

// The rest of its lines, and its exit status.
int finish(FILE *peer, std::vector<std::string> &lines)
{
    for (std::string line = next_line(peer); !line.empty(); line = next_line(peer)) {
        lines.push_back(line);
    }
    const int status = pclose(peer);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string expected(size_t i, uint32_t src_type, uint32_t src_index, uint32_t src_id,
                     uint32_t role)
{
    Seen seen{};
    seen.data = pattern(kArrived[i]);
    seen.word = kWord[i];
    seen.src_type = static_cast<uint8_t>(src_type);
    seen.src_index = src_index;
    seen.src_id = src_id;
    seen.addr.role = role;
    return describe(seen);
}

} // namespace

TEST(HdcTwoProcesses, ClientRequestsReachAServerDaemonAndItsAnswersComeBack)
{
    FILE *server = popen((std::string(VELMAR_HDC_PEER) + " server 5 5").c_str(), "r");
    ASSERT_NE(server, nullptr);
    ASSERT_EQ(next_line(server), "ready");
    HdcContext ctx;
    DM_INTF_ST *client = ctx.open(DM_HDC_ROLE_CLIENT, 6, 5);
    ASSERT_NE(client, nullptr);
    Inbox answers;
    for (size_t len : kSent) {
        EXPECT_EQ(request(client, 5, pattern(len), &answers), 0) << len;
    }
    std::vector<std::string> seen_by_server;
    EXPECT_EQ(finish(server, seen_by_server), 0);
    ASSERT_EQ(seen_by_server.size(), kSent.size());
    const std::vector<Seen> got = answers.wait(kSent.size());
    ASSERT_EQ(got.size(), kSent.size());
    for (size_t i = 0; i < kSent.size(); ++i) {
        EXPECT_EQ(seen_by_server[i], expected(i, 1, getuid(), 5, 0)) << kSent[i];
        // A client leaves src_type and src_index as the framework gave them: zero.
        EXPECT_EQ(describe(got[i]), expected(i, 0, 0, 6, 1)) << kSent[i];
        EXPECT_EQ(got[i].type, static_cast<uint32_t>(DM_MSG_RSP));
    }
}

TEST(HdcTwoProcesses, AServerAnswersAClientDaemonThatAnnouncesItsRunEnvironment)
{
    HdcContext ctx;
    Inbox requests;
    ASSERT_NE(ctx.open(DM_HDC_ROLE_SERVER, 8, 8), nullptr);
    ASSERT_EQ(ctx.serve(&requests), 0);
    std::string command =
        std::string(HOST_HDC_RUN_ENV_ENV) + "=4 " + VELMAR_HDC_PEER + " client 9 8";
    for (size_t len : kSent) {
        command += " " + std::to_string(len);
    }
    FILE *client = popen(command.c_str(), "r");
    ASSERT_NE(client, nullptr);
    std::vector<std::string> answers;
    EXPECT_EQ(finish(client, answers), 0);
    ASSERT_EQ(answers.size(), kSent.size());
    const std::vector<Seen> got = requests.wait(kSent.size());
    ASSERT_EQ(got.size(), kSent.size());
    for (size_t i = 0; i < kSent.size(); ++i) {
        EXPECT_EQ(answers[i], expected(i, 0, 0, 9, 1)) << kSent[i];
        // Run environment 4 counts as 2.
        EXPECT_EQ(describe(got[i]), expected(i, 2, getuid(), 8, 0)) << kSent[i];
        EXPECT_EQ(got[i].addr.session_state, 0U) << "the reply closed the session";
    }
}

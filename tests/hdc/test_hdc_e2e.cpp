// Two daemons in two processes of one machine: this test program and hdc_peer, one the
// HDC server and the other the client, in both arrangements.
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "hdc/hdc_test_support.h"

extern char **environ;

using namespace hdc_test;

namespace {

// Requests of 0, 10, 40 and 4096 bytes go out whole; 5000 bytes go out as a bare header.
const std::vector<size_t> kSent = {0, 10, 40, 4096, 5000};
const std::vector<size_t> kArrived = {0, 10, 40, 4096, 0};
// Bytes 8 to 11 as the receiver recomputes them: the length less 12, or 0 below 12.
const std::vector<uint32_t> kWord = {0, 0, 28, 4084, 0};

class Peer {
public:
    Peer(const std::vector<std::string> &args, const std::string &extra_env = "")
    {
        int in[2];
        int out[2];
        EXPECT_EQ(pipe2(in, O_CLOEXEC), 0);
        EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        std::vector<char *> argv{const_cast<char *>(VELMAR_HDC_PEER)};
        for (const auto &arg : args) {
            argv.push_back(const_cast<char *>(arg.c_str()));
        }
        argv.push_back(nullptr);
        std::vector<char *> envp;
        for (char **e = environ; *e != nullptr; ++e) {
            envp.push_back(*e);
        }
        if (!extra_env.empty()) {
            envp.push_back(const_cast<char *>(extra_env.c_str()));
        }
        envp.push_back(nullptr);
        EXPECT_EQ(posix_spawn(&pid_, VELMAR_HDC_PEER, &actions, nullptr, argv.data(), envp.data()),
                  0);
        posix_spawn_file_actions_destroy(&actions);
        close(in[0]);
        close(out[1]);
        to_child_ = in[1];
        from_child_ = out[0];
    }

    ~Peer()
    {
        if (pid_ > 0) {
            finish();
        }
    }

    // The next line of its output, or "" after 20 s.
    std::string line()
    {
        while (buffered_.find('\n') == std::string::npos) {
            pollfd pfd{from_child_, POLLIN, 0};
            char chunk[512];
            ssize_t got = poll(&pfd, 1, 20000) == 1 ? read(from_child_, chunk, sizeof(chunk)) : 0;
            if (got <= 0) {
                return "";
            }
            buffered_.append(chunk, static_cast<size_t>(got));
        }
        const size_t end = buffered_.find('\n');
        std::string first = buffered_.substr(0, end);
        buffered_.erase(0, end + 1);
        return first;
    }

    // Closes its input, collects the rest of its lines and its exit status.
    int finish(std::vector<std::string> *lines = nullptr)
    {
        close(to_child_);
        for (std::string l = line(); !l.empty(); l = line()) {
            if (lines != nullptr) {
                lines->push_back(l);
            }
        }
        close(from_child_);
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    pid_t pid_ = -1;
    int to_child_ = -1;
    int from_child_ = -1;
    std::string buffered_;
};

std::string expected_line(size_t len, uint32_t word, uint32_t src_type, uint32_t src_index,
                          uint32_t src_id, uint32_t role)
{
    Seen seen{};
    seen.data = pattern(len);
    seen.word = word;
    seen.src_type = static_cast<uint8_t>(src_type);
    seen.src_index = src_index;
    seen.src_id = src_id;
    seen.addr.role = role;
    return describe(seen);
}

} // namespace

TEST(HdcTwoProcesses, ClientRequestsReachAServerDaemonAndItsAnswersComeBack)
{
    Peer server({"server", "5"});
    ASSERT_EQ(server.line(), "ready");
    HdcContext ctx;
    DM_INTF_ST *client = ctx.open(DM_HDC_ROLE_CLIENT, 6, 5);
    ASSERT_NE(client, nullptr);
    Inbox answers;
    for (size_t len : kSent) {
        EXPECT_EQ(request(client, 5, pattern(len), &answers), 0) << len;
    }
    const std::vector<Seen> got = answers.wait(kSent.size());
    ASSERT_EQ(got.size(), kSent.size());
    for (size_t i = 0; i < got.size(); ++i) {
        // A client leaves src_type and src_index as the framework gave them: zero.
        EXPECT_EQ(describe(got[i]), expected_line(kArrived[i], kWord[i], 0, 0, 6, 1)) << kSent[i];
        EXPECT_EQ(got[i].type, static_cast<uint32_t>(DM_MSG_RSP));
    }
    std::vector<std::string> seen_by_server;
    EXPECT_EQ(server.finish(&seen_by_server), 0);
    ASSERT_EQ(seen_by_server.size(), kSent.size());
    for (size_t i = 0; i < kSent.size(); ++i) {
        EXPECT_EQ(seen_by_server[i], expected_line(kArrived[i], kWord[i], 1, getuid(), 5, 0))
            << kSent[i];
    }
}

TEST(HdcTwoProcesses, AServerAnswersAClientDaemonThatAnnouncesItsRunEnvironment)
{
    HdcContext ctx;
    Inbox requests;
    ASSERT_NE(ctx.open(DM_HDC_ROLE_SERVER, 8, 8), nullptr);
    ASSERT_EQ(ctx.serve(&requests), 0);
    std::vector<std::string> args{"client", "9", "8"};
    for (size_t len : kSent) {
        args.push_back(std::to_string(len));
    }
    Peer client(args, std::string(HOST_HDC_RUN_ENV_ENV) + "=4");
    std::vector<std::string> answers;
    EXPECT_EQ(client.finish(&answers), 0);
    ASSERT_EQ(answers.size(), kSent.size());
    const std::vector<Seen> got = requests.wait(kSent.size());
    ASSERT_EQ(got.size(), kSent.size());
    for (size_t i = 0; i < kSent.size(); ++i) {
        EXPECT_EQ(answers[i], expected_line(kArrived[i], kWord[i], 0, 0, 9, 1)) << kSent[i];
        // Run environment 4 counts as 2.
        EXPECT_EQ(describe(got[i]), expected_line(kArrived[i], kWord[i], 2, getuid(), 8, 0))
            << kSent[i];
        EXPECT_EQ(got[i].addr.session_state, 0U) << "the reply closed the session";
    }
}

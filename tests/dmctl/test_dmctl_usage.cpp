// SPDX-License-Identifier: Apache-2.0
// dmctl's answers to mistakes: exit status 2 and a message that names the problem.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "dmctl_runner.h"

using dmctl_test::Result;
using dmctl_test::run;

namespace {

// A UDP port on 127.0.0.1 that this process holds while the object lives.
class HeldPort {
public:
    HeldPort()
    {
        fd_ = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof(sa);
        bind(fd_, reinterpret_cast<sockaddr *>(&sa), sizeof(sa));
        getsockname(fd_, reinterpret_cast<sockaddr *>(&sa), &len);
        port_ = ntohs(sa.sin_port);
    }
    ~HeldPort() { close(fd_); }
    std::string addr() const { return "127.0.0.1:" + std::to_string(port_); }

private:
    int fd_ = -1;
    int port_ = 0;
};

struct BadCall {
    std::vector<std::string> args;
    std::string says;
};

TEST(DmctlUsage, MistakesExitWithTwoAndNameTheProblem)
{
    HeldPort taken;
    const std::vector<BadCall> calls = {
        {{}, "usage: dmctl COMMAND"},
        {{"frobnicate"}, "unknown command 'frobnicate'"},
        {{"send", "hello"}, "no transport given"},
        {{"send", "--udp", "1.2.3:80", "x"}, "'1.2.3' is not an IPv4 address"},
        {{"send", "--udp", "127.0.0.1", "x"}, "is not ADDR:PORT"},
        {{"send", "--udp", "127.0.0.1:70000", "x"}, "--udp: port '70000' is out of range"},
        {{"send", "--udp", "127.0.0.1:5", "--retries", "many", "x"},
         "--retries: 'many' is not a number"},
        {{"send", "--udp", "127.0.0.1:5", "--timeout"}, "--timeout needs a value"},
        {{"send", "--udp", "127.0.0.1:5", "--bogus", "x"}, "unknown option --bogus"},
        {{"send", "--udp", "127.0.0.1:5"}, "no payload"},
        {{"send", "--udp", "127.0.0.1:5", "--hex", "0g"}, "'g' is not a hex digit"},
        {{"send", "--udp", "127.0.0.1:5", "--file", "/nonexistent/payload"},
         "cannot open '/nonexistent/payload'"},
        {{"send", "--udp", "127.0.0.1:5", "--udp", "127.0.0.1:6", "x"}, "exactly one"},
        {{"send", "--hdc", "77", "x"}, "no HDC server for HDC device 77"},
        {{"send", "--ipc", "77", "x"}, "no device 77"},
        {{"serve"}, "no transport given"},
        {{"serve", "--udp", taken.addr()}, "port in use"},
        {{"serve", "--udp", "127.0.0.1:0", "--drop", "2"}, "not a rate between 0 and 1"},
        // 192.0.2.1 is reserved for documentation: no host has it.
        {{"serve", "--udp", "192.0.2.1:5555"}, "not one of this host's"},
        {{"send", "--udp", "127.0.0.1:5", "--json", "--raw", "x"}, "not both"},
        {{"bench", "--udp", "127.0.0.1:5", "-s", "5000"}, "-s: '5000' is out of range"},
        {{"bench", "--ipc", "3"}, "no responses to measure"},
        {{"demo", "now"}, "unexpected argument 'now'"},
    };
    for (const BadCall &call : calls) {
        Result r = run(call.args);
        std::string line = "dmctl";
        for (const std::string &a : call.args) {
            line += " " + a;
        }
        EXPECT_EQ(r.status, 2) << line;
        EXPECT_NE(r.err.find(call.says), std::string::npos) << line << "\nstderr: " << r.err;
        EXPECT_TRUE(r.out.empty()) << line << "\nstdout: " << r.out;
    }
}

TEST(DmctlUsage, EverySubcommandHasHelpWithAnExample)
{
    for (const char *command : {"serve", "send", "bench", "demo"}) {
        Result r = run({command, "--help"});
        EXPECT_EQ(r.status, 0) << command;
        EXPECT_NE(r.out.find(std::string("usage: dmctl ") + command), std::string::npos) << r.out;
        const size_t example = r.out.find("Example:\n");
        ASSERT_NE(example, std::string::npos) << r.out;
        EXPECT_NE(r.out.find(std::string("dmctl ") + command, example), std::string::npos) << r.out;
    }
}

} // namespace

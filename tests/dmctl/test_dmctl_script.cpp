// SPDX-License-Identifier: Apache-2.0
// dmctl as a script uses it: exit codes, JSON read back by a real parser (which refuses
// anything a hand-made printer gets wrong, such as raw bytes of 0x80 and above), raw
// payload bytes, and what signals do.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <csignal>
#include <functional>
#include <sstream>

#include <nlohmann/json.hpp>

#include "dmctl_runner.h"

using dmctl_test::Background;
using dmctl_test::Result;
using dmctl_test::run;
using dmctl_test::Server;
using nlohmann::json;

namespace {

bool contains(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

// Every line of `out` as JSON; a line that does not parse fails the test.
std::vector<json> json_lines(const std::string &out)
{
    std::vector<json> lines;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) {
        json value = json::parse(line, nullptr, false);
        EXPECT_FALSE(value.is_discarded()) << "not JSON: " << line;
        lines.push_back(value);
    }
    return lines;
}

json only_object(const Result &r)
{
    const auto lines = json_lines(r.out);
    EXPECT_EQ(lines.size(), 1U) << r.out;
    return lines.empty() ? json() : lines[0];
}

struct Case {
    const char *what;
    bool to_echo; // else to a server that ignores everything
    std::vector<std::string> args;
    int status;
    std::function<void(const Result &)> check;
};

TEST(DmctlScripting, ExitCodesJsonAndRawOutput)
{
    Server echo({"--udp", "127.0.0.1:0"});
    Server silent({"--udp", "127.0.0.1:0", "--drop", "1"});
    ASSERT_TRUE(echo.ready() && silent.ready());
    const std::vector<Case> cases = {
        {"send --json: the payload's bytes in hex, escaped text", true,
         {"send", "--json", "--hex", "00 ff 80 22 5c"}, 0,
         [](const Result &r) {
             const json j = only_object(r);
             EXPECT_EQ(j.value("result", ""), "answer");
             EXPECT_EQ(j.value("hex", ""), "00ff80225c");
             EXPECT_EQ(j.value("bytes", 0), 5);
             EXPECT_EQ(j.value("sends", 0), 1);
         }},
        {"send --raw: the payload's bytes and nothing else", true,
         {"send", "--raw", "--hex", "00 ff 80 0a"}, 0,
         [](const Result &r) { EXPECT_EQ(r.out, std::string("\x00\xff\x80\n", 4)); }},
        {"send --json, timed out: the sends and when", false,
         {"send", "--json", "--retries", "1", "--timeout", "100", "x"}, 1,
         [](const Result &r) {
             const json j = only_object(r);
             EXPECT_EQ(j.value("result", ""), "timed_out");
             EXPECT_EQ(j.value("sends", 0), 2);
             EXPECT_EQ(j["send_times_ms"].size(), 2U);
         }},
        {"send --raw, timed out: nothing on stdout", false,
         {"send", "--raw", "--retries", "0", "--timeout", "100", "x"}, 1,
         [](const Result &r) {
             EXPECT_TRUE(r.out.empty());
             EXPECT_TRUE(contains(r.err, "timed out"));
         }},
        {"send with the interactive defaults: told how long it waits, gives up in seconds",
         false, {"send", "x"}, 1,
         [](const Result &r) {
             EXPECT_TRUE(contains(r.err, "no answer yet")) << r.err;
             EXPECT_TRUE(contains(r.err, "2 s after the first send")) << r.err;
             EXPECT_TRUE(contains(r.out, "after 3 sends")) << r.out;
         }},
        {"bench with no answer at all: exit 1, no percentiles", false,
         {"bench", "--json", "-n", "3", "--retries", "0", "--timeout", "100"}, 1,
         [](const Result &r) {
             const json j = only_object(r);
             EXPECT_EQ(j.value("answered", -1), 0);
             EXPECT_EQ(j.value("timeouts", -1), 3);
             EXPECT_TRUE(j["latency_ms"].is_null());
             EXPECT_EQ(j["counters"]["interfaces"]["dm_udp"].value("requests_timed_out", -1), 3);
         }},
        {"bench, text, no answer: says so instead of figures", false,
         {"bench", "-n", "2", "--retries", "0", "--timeout", "100"}, 1,
         [](const Result &r) {
             EXPECT_TRUE(contains(r.out, "none: no request was answered")) << r.out;
             EXPECT_FALSE(contains(r.out, "p50")) << r.out;
         }},
    };
    for (const Case &c : cases) {
        std::vector<std::string> args = c.args;
        args.insert(args.begin() + 1, {"--udp", c.to_echo ? echo.udp() : silent.udp()});
        const Result r = run(args);
        EXPECT_EQ(r.status, c.status) << c.what << "\nstdout: " << r.out << "\nstderr: " << r.err;
        SCOPED_TRACE(c.what);
        c.check(r);
    }
}

TEST(DmctlScripting, ServeJsonIsOneObjectPerLine)
{
    Server server({"--udp", "127.0.0.1:0", "--json"});
    ASSERT_TRUE(server.ready()) << server.seen().out << server.seen().err;
    EXPECT_EQ(run({"send", "--udp", server.udp(), "--hex", "c3 28 ff"}).status, 0);
    EXPECT_EQ(run({"send", "--udp", server.udp(), "plain"}).status, 0);
    const Result stopped = server.stop(SIGINT);
    EXPECT_EQ(stopped.status, 0) << stopped.err;
    std::vector<std::string> events;
    std::vector<std::string> hex;
    json counters;
    for (const json &line : json_lines(stopped.out)) {
        events.push_back(line.value("event", "?"));
        if (line.value("event", "") == "counters") {
            counters = line;
        }
        if (line.value("event", "") == "request") {
            hex.push_back(line.value("hex", ""));
            EXPECT_EQ(line.value("verdict", ""), "answered");
        }
    }
    EXPECT_EQ(events, (std::vector<std::string>{"serving", "ready", "request", "request",
                                                "stopping", "counters"}));
    EXPECT_EQ(hex, (std::vector<std::string>{"c328ff", "706c61696e"}));
    // The library's own counts of the two requests and their answers.
    const json udp = counters["interfaces"]["dm_udp"];
    EXPECT_EQ(udp.value("frames_received", -1), 2) << counters.dump();
    EXPECT_EQ(udp.value("frames_sent", -1), 2) << counters.dump();
    EXPECT_EQ(udp.value("answers_dropped", -1), 0) << counters.dump();
}

struct SignalCase {
    const char *what;
    std::vector<std::string> args; // "SILENT" stands for the silent server's address
    std::string started;           // output that shows it is under way
    int sig;
    int status;
    std::function<void(const Result &)> check;
};

TEST(DmctlSignals, InterruptedRunsReportAndCleanUp)
{
    Server silent({"--udp", "127.0.0.1:0", "--drop", "1"});
    ASSERT_TRUE(silent.ready());
    const std::vector<SignalCase> cases = {
        {"bench --json on SIGINT: a partial report",
         {"bench", "--udp", "SILENT", "--json", "-n", "50", "--timeout", "5000"}, "", SIGINT, 130,
         [](const Result &r) {
             const json j = only_object(r);
             EXPECT_EQ(j.value("interrupted", ""), "SIGINT");
             EXPECT_EQ(j.value("completed", -1), 0);
             EXPECT_TRUE(j["latency_ms"].is_null());
         }},
        {"bench on SIGTERM: a partial text report",
         {"bench", "--udp", "SILENT", "-n", "50", "--timeout", "5000"}, "", SIGTERM, 143,
         [](const Result &r) { EXPECT_TRUE(contains(r.out, "partial report")) << r.out; }},
        {"demo on SIGINT: no directory left behind", {"demo"}, "== 2.", SIGINT, 130,
         [](const Result &r) {
             const std::string key = "(simulator directory ";
             const size_t at = r.out.find(key);
             ASSERT_NE(at, std::string::npos) << r.out;
             const std::string dir =
                 r.out.substr(at + key.size(), r.out.find(',', at) - at - key.size());
             struct stat st {};
             EXPECT_NE(stat(dir.c_str(), &st), 0) << dir << " is still there";
         }},
    };
    for (const SignalCase &c : cases) {
        std::vector<std::string> args = c.args;
        for (std::string &a : args) {
            a = a == "SILENT" ? silent.udp() : a;
        }
        Background process(args, c.started);
        ASSERT_TRUE(process.ready()) << c.what;
        process.wait_for("\x01never", 500); // under way: requests out, servers started
        const Result r = process.stop(c.sig);
        EXPECT_EQ(r.status, c.status) << c.what << "\nstdout: " << r.out << "\nstderr: " << r.err;
        SCOPED_TRACE(c.what);
        c.check(r);
    }
}

TEST(DmctlSignals, ServeKeepsRunningOnSighup)
{
    Server server({"--udp", "127.0.0.1:0"});
    ASSERT_TRUE(server.ready());
    kill(server.pid(), SIGHUP);
    EXPECT_TRUE(server.wait_for("SIGHUP ignored", 5000));
    EXPECT_EQ(run({"send", "--udp", server.udp(), "still there?"}).status, 0);
    EXPECT_EQ(server.stop().status, 0);
}

} // namespace

// SPDX-License-Identifier: Apache-2.0
// dmctl end to end: a server and its clients as separate processes.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <thread>

#include <nlohmann/json.hpp>

#include "dmctl_runner.h"
#include "host_devmgr.h"

using dmctl_test::Result;
using dmctl_test::run;
using dmctl_test::Server;

namespace {

bool contains(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

// bench --json's report, parsed; null when it is not JSON.
nlohmann::json report(const Result &r)
{
    return nlohmann::json::parse(r.out, nullptr, false);
}

TEST(DmctlServeSend, UdpEchoesTextHexAndFilePayloads)
{
    Server server({"--udp", "127.0.0.1:0", "-v"});
    ASSERT_TRUE(server.ready());
    Result text = run({"send", "--udp", server.udp(), "hello", "world"});
    EXPECT_EQ(text.status, 0) << text.err;
    EXPECT_TRUE(contains(text.out, "after 1 send")) << text.out;
    EXPECT_TRUE(contains(text.out, "text: hello world")) << text.out;
    EXPECT_TRUE(contains(text.out, "68 65 6c 6c 6f 20 77 6f")) << text.out;

    Result hex = run({"send", "--udp", server.udp(), "--hex", "00 ff:10"});
    EXPECT_EQ(hex.status, 0) << hex.err;
    EXPECT_TRUE(contains(hex.out, "3 bytes")) << hex.out;
    EXPECT_TRUE(contains(hex.out, " 00 ff 10 ")) << hex.out;

    const std::string path = std::string(getenv("VELMAR_HDC_DIR")) + "-payload";
    std::ofstream(path) << std::string(4096, 'z');
    Result file = run({"send", "--udp", server.udp(), "--file", path});
    EXPECT_EQ(file.status, 0) << file.err;
    EXPECT_TRUE(contains(file.out, "4096 bytes")) << file.out;
    unlink(path.c_str());

    Result stopped = server.stop(SIGINT);
    EXPECT_EQ(stopped.status, 0) << stopped.err;
    EXPECT_TRUE(contains(stopped.out, "served 3 requests: 3 answered")) << stopped.out;
    EXPECT_TRUE(contains(stopped.out, "responses sent 3")) << stopped.out;
}

TEST(DmctlServeSend, HdcEchoesThroughTheSimulatorAndRefusesASecondServer)
{
    Server server({"--hdc", "9", "-v"});
    ASSERT_TRUE(server.ready());
    Result sent = run({"send", "--hdc", "9", "hi hdc"});
    EXPECT_EQ(sent.status, 0) << sent.err;
    EXPECT_TRUE(contains(sent.out, "answer from hdc device 9")) << sent.out;
    EXPECT_TRUE(contains(sent.out, "text: hi hdc")) << sent.out;

    Result second = run({"serve", "--hdc", "9"});
    EXPECT_EQ(second.status, 2);
    EXPECT_TRUE(contains(second.err, "already has a server")) << second.err;
    EXPECT_TRUE(contains(server.stop().out, "served 1 requests: 1 answered"));
}

TEST(DmctlTimeout, ReportsTheSendsAndExitsWithOne)
{
    Server server({"--udp", "127.0.0.1:0", "--drop", "1", "-v"});
    ASSERT_TRUE(server.ready());
    Result r =
        run({"send", "--udp", server.udp(), "--retries", "2", "--timeout", "100", "-v", "anyone?"});
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_TRUE(contains(r.out, "timed out")) << r.out;
    EXPECT_TRUE(contains(r.out, "after 3 sends")) << r.out;
    EXPECT_TRUE(contains(r.out, "re-sends 2")) << r.out;
    EXPECT_TRUE(contains(r.out, "time-outs reported 1")) << r.out;
    // The server saw the same three sends.
    Result seen = server.stop();
    EXPECT_TRUE(contains(seen.out, "#3 dm_udp")) << seen.out;
    EXPECT_FALSE(contains(seen.out, "#4 ")) << seen.out;
    EXPECT_TRUE(contains(seen.out, "3 dropped")) << seen.out;
}

TEST(DmctlBench, CountsEveryRequestAndTellsTimeOutsFromAnswers)
{
    Server echo({"--udp", "127.0.0.1:0"});
    ASSERT_TRUE(echo.ready());
    Result full =
        run({"bench", "--udp", echo.udp(), "-n", "300", "-w", "8", "-s", "100", "--json"});
    EXPECT_EQ(full.status, 0) << full.err;
    const auto full_report = report(full);
    EXPECT_EQ(full_report.value("completed", -1), 300) << full.out;
    EXPECT_EQ(full_report.value("answered", -1), 300) << full.out;
    EXPECT_EQ(full_report["anomalies"].value("not_echo", -1), 0) << full.out;

    // Half the requests are ignored: each must end as a time-out, none twice.
    Server lossy({"--udp", "127.0.0.1:0", "--drop", "0.5", "--seed", "7"});
    ASSERT_TRUE(lossy.ready());
    Result r = run({"bench", "--udp", lossy.udp(), "-n", "40", "-w", "8", "--retries", "0",
                    "--timeout", "100", "--json"});
    EXPECT_EQ(r.status, 0) << r.err;
    const auto lossy_report = report(r);
    const int answered = lossy_report.value("answered", -1);
    const int timeouts = lossy_report.value("timeouts", -1);
    EXPECT_EQ(answered + timeouts, 40) << r.out;
    EXPECT_GT(timeouts, 0) << r.out;
    EXPECT_GT(answered, 0) << r.out;
    EXPECT_EQ(lossy_report["anomalies"].value("duplicate_callbacks", -1), 0) << r.out;
}

TEST(DmctlServe, HeldAnswersDoNotHoldUpThePoller)
{
    // Ten requests at once, each answer held 400 ms: one after the other that would take
    // 4 s; held side by side, each takes about 400 ms.
    Server server({"--udp", "127.0.0.1:0", "--delay", "400"});
    ASSERT_TRUE(server.ready());
    Result r = run({"bench", "--udp", server.udp(), "-n", "10", "-w", "10", "--retries", "0",
                    "--timeout", "20000", "--json"});
    EXPECT_EQ(r.status, 0) << r.err;
    const auto held = report(r);
    EXPECT_EQ(held.value("answered", -1), 10) << r.out;
    EXPECT_GE(held["latency_ms"].value("p50", 0.0), 390) << r.out;
    EXPECT_LT(held["latency_ms"].value("max", 1e9), 2500) << r.out;
}

TEST(DmctlIpc, ServeAnswersTheDeviceAndSendTakesTheDevicesMessage)
{
    dmctl_test::use_private_simulator_dir();
    host_devmgr_device *dev = host_devmgr_device_open(7);
    ASSERT_NE(dev, nullptr);
    {
        Server server({"--ipc", "7"});
        ASSERT_TRUE(server.ready());
        ASSERT_EQ(host_devmgr_device_send_to_process(dev, server.pid(), "ping", 4), 0);
        char buf[64];
        uint32_t len = 0;
        ASSERT_EQ(host_devmgr_device_recv_from_process(dev, buf, sizeof(buf), &len, nullptr, 20000),
                  0);
        EXPECT_EQ(std::string(buf, len), "ping");
    }
    // The device answers whoever wrote to it last.
    std::thread device([dev] {
        char buf[64];
        uint32_t len = 0;
        if (host_devmgr_device_recv_from_process(dev, buf, sizeof(buf), &len, nullptr, 20000) ==
            0) {
            host_devmgr_device_send_to_process(dev, 0, "pong", 4);
        }
    });
    Result sent = run({"send", "--ipc", "7", "status"});
    device.join();
    host_devmgr_device_close(dev);
    EXPECT_EQ(sent.status, 0) << sent.err;
    EXPECT_TRUE(contains(sent.out, "device message from ipc device 7")) << sent.out;
    EXPECT_TRUE(contains(sent.out, "text: pong")) << sent.out;
}

TEST(DmctlDemo, RunsEveryStepAsExpected)
{
    Result r = run({"demo"});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_TRUE(contains(r.out, "late answers dropped: 2")) << r.out;
    EXPECT_TRUE(contains(r.out, "everything behaved as expected")) << r.out;
}

} // namespace

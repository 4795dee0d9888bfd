// SPDX-License-Identifier: Apache-2.0
// Device log: the level from the environment, whole lines from many threads, the sink
// and the level override. The environment is read once per process, so those cases run
// this program again as a child that logs to a file and exits before main().
#include <gtest/gtest.h>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "host_platform.h"

extern char **environ;

namespace {

constexpr int kThreads = 8, kLinesPerLevel = 50;
constexpr size_t kPad = 300; // long lines make a split write visible
const char kChildFlag[] = "HOST_DLOG_TEST_CHILD";

[[maybe_unused]] const bool g_child_ran = [] {
    if (std::getenv(kChildFlag) == nullptr) {
        return false;
    }
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            const std::string pad(kPad, static_cast<char>('a' + t));
            for (int i = 0; i < kLinesPerLevel; ++i) {
                DlogDebugInner(10, "L0 t%d %s", t, pad.c_str());
                DlogInfoInner(10, "L1 t%d %s\n", t, pad.c_str());
                DlogWarnInner(10, "L2 t%d %s", t, pad.c_str());
                DlogErrorInner(10, "L3 t%d %s\n", t, pad.c_str());
            }
        });
    }
    std::ranges::for_each(threads, &std::thread::join);
    std::_Exit(0);
}();

// The level of a whole line of the child `pid`, or -1:
// "YYYY-MM-DD HH:MM:SS.mmm NAME pid:tid [10] L<level> t<t> <kPad x letter of t>".
int parse_line(const std::string &line, pid_t pid)
{
    static const char *const kNames[] = {"DEBUG", "INFO", "WARN", "ERROR"};
    int y, mo, d, h, mi, s, ms, line_pid, tid, module, level, t, rest = 0;
    char name[8] = {};
    if (std::sscanf(line.c_str(), "%4d-%2d-%2d %2d:%2d:%2d.%3d %7s %d:%d [%d] L%d t%d %n", &y, &mo, &d, &h, &mi,
                    &s, &ms, name, &line_pid, &tid, &module, &level, &t, &rest) != 13 ||
        line_pid != pid || module != 10 || level < 0 || level > 3 || line[23] != ' ' ||
        std::strcmp(name, kNames[level]) != 0) {
        return -1;
    }
    const std::string pad(kPad, static_cast<char>('a' + t));
    return line.compare(static_cast<size_t>(rest), std::string::npos, pad) == 0 ? level : -1;
}

TEST(Dlog, EnvironmentChoosesTheLevelAndLinesFromManyThreadsStayWhole)
{
    const std::pair<const char *, int> cases[] = {{nullptr, 2}, {"debug", 0}, {"INFO", 1}, {"warning", 2},
                                                  {"error", 3}, {"0", 0}, {"3", 3}, {"nonsense", 2}};
    const std::string path = testing::TempDir() + "dlog_" + std::to_string(getpid()) + ".log";
    for (const auto &[value, lowest] : cases) {
        SCOPED_TRACE(value == nullptr ? "(unset)" : value);
        std::vector<std::string> env = {std::string(kChildFlag) + "=1", "VELMAR_LOG_FILE=" + path};
        if (value != nullptr) {
            env.push_back(std::string("VELMAR_LOG_LEVEL=") + value);
        }
        for (char **e = environ; *e != nullptr; ++e) {
            if (std::strncmp(*e, "VELMAR_LOG_", 11) != 0) {
                env.emplace_back(*e);
            }
        }
        std::vector<char *> envp;
        std::ranges::for_each(env, [&envp](std::string &s) { envp.push_back(s.data()); });
        envp.push_back(nullptr);
        char exe[] = "/proc/self/exe";
        char *argv[] = {exe, nullptr};
        pid_t pid = 0;
        int status = -1;
        ASSERT_EQ(posix_spawn(&pid, exe, nullptr, nullptr, argv, envp.data()), 0);
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_EQ(status, 0);
        std::array<int, 5> counts{}; // lines that are not whole, then per level
        std::ifstream in(path);
        for (std::string line; std::getline(in, line);) {
            ++counts[static_cast<size_t>(parse_line(line, pid) + 1)];
        }
        std::remove(path.c_str());
        for (int level = -1; level < 4; ++level) {
            EXPECT_EQ(counts[static_cast<size_t>(level + 1)], level >= lowest ? kThreads * kLinesPerLevel : 0)
                << "level " << level;
        }
    }
}

using Lines = std::vector<std::pair<int, std::string>>;

TEST(Dlog, SinkReceivesExactlyTheFormattedLinesThatPassTheLevel)
{
    const int env_level = host_dlog_get_level();
    Lines got;
    host_dlog_set_sink(
        [](int level, const char *line, void *ctx) { static_cast<Lines *>(ctx)->emplace_back(level, line); }, &got);
    host_dlog_set_level(0);
    EXPECT_EQ(CheckLogLevel(10, 0), 1);
    DlogDebugInner(10, "d%d", 0);
    DlogInfoInner(10, "i %s\n", "x");
    host_dlog_set_level(3);
    EXPECT_EQ(CheckLogLevel(10, 2), 0);
    EXPECT_EQ(CheckLogLevel(10, 3), 1);
    DlogWarnInner(10, "filtered");
    DlogErrorInner(10, "e%c", '!');
    host_dlog_set_level(9); // counts as 4: silent
    EXPECT_EQ(CheckLogLevel(10, 3) + CheckLogLevel(10, 4), 0);
    DlogErrorInner(10, "silenced");
    host_dlog_set_level(-1);
    EXPECT_EQ(host_dlog_get_level(), env_level);
    host_dlog_set_sink(nullptr, nullptr);
    errno = ENOTTY;
    DlogErrorInner(10, "not captured: the sink is gone (this line is expected on stderr)");
    EXPECT_EQ(errno, ENOTTY) << "logging changed the caller's errno";
    EXPECT_EQ(got, (Lines{{0, "d0"}, {1, "i x\n"}, {3, "e!"}}));
}

TEST(Dlog, SinkChangesRaceFreelyWithLoggingThreads)
{
    std::atomic<int> counts[2] = {0, 0};
    const host_dlog_sink_fn count = [](int, const char *, void *ctx) {
        static_cast<std::atomic<int> *>(ctx)->fetch_add(1);
    };
    host_dlog_set_level(3);
    host_dlog_set_sink(count, &counts[0]);
    std::atomic<bool> stop{false};
    std::thread switcher([&] {
        for (size_t i = 0; !stop.load(); ++i) {
            host_dlog_set_sink(count, &counts[i % 2]);
        }
    });
    std::vector<std::thread> loggers;
    for (int t = 0; t < 4; ++t) {
        loggers.emplace_back([] {
            for (int i = 0; i < 2000; ++i) {
                DlogErrorInner(10, "line %d", i);
            }
        });
    }
    std::ranges::for_each(loggers, &std::thread::join);
    stop = true;
    switcher.join();
    host_dlog_set_sink(nullptr, nullptr);
    host_dlog_set_level(-1);
    EXPECT_EQ(counts[0].load() + counts[1].load(), 4 * 2000);
}

} // namespace

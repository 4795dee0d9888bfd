// Device log: the level filter, the line format, whole lines from many threads, and the
// sink. The environment is read once per process, so the environment cases run this
// program again as a child (see run_child_if_asked) that logs to a file.
#include <gtest/gtest.h>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "host_platform.h"

extern char **environ;

namespace {

constexpr int kChildThreads = 8;
constexpr int kChildLinesPerLevel = 50;
const char kChildFlag[] = "HOST_DLOG_TEST_CHILD";

// In the child: every thread writes kChildLinesPerLevel lines at each level, long
// enough that a line split across two write() calls would show.
void child_log()
{
    std::vector<std::thread> threads;
    for (int t = 0; t < kChildThreads; ++t) {
        threads.emplace_back([t] {
            const std::string pad(300, static_cast<char>('a' + t));
            for (int i = 0; i < kChildLinesPerLevel; ++i) {
                DlogDebugInner(10, "L0 t%d i%d %s", t, i, pad.c_str());
                DlogInfoInner(10, "L1 t%d i%d %s\n", t, i, pad.c_str());
                DlogWarnInner(10, "L2 t%d i%d %s", t, i, pad.c_str());
                DlogErrorInner(10, "L3 t%d i%d %s\n", t, i, pad.c_str());
            }
        });
    }
    for (auto &th : threads) {
        th.join();
    }
}

// Runs before gtest's main when the parent started us as a child.
[[maybe_unused]] const bool g_is_child = [] {
    if (std::getenv(kChildFlag) == nullptr) {
        return false;
    }
    child_log();
    std::_Exit(0);
}();

struct ChildResult {
    int lines_per_level[4] = {0, 0, 0, 0};
    std::vector<std::string> bad_lines;
};

// The level of a whole line from child_log() written by process `pid`, or -1:
// "YYYY-MM-DD HH:MM:SS.mmm LEVEL pid:tid [10] L<level> t<t> i<i> <300 x letter of t>".
int parse_child_line(const std::string &line, pid_t pid)
{
    static const char kStampShape[] = "NNNN-NN-NN NN:NN:NN.NNN ";
    static const char *const kNames[] = {"DEBUG", "INFO", "WARN", "ERROR"};
    const size_t stamp_len = sizeof kStampShape - 1;
    if (line.size() < stamp_len) {
        return -1;
    }
    for (size_t i = 0; i < stamp_len; ++i) {
        const bool digit = std::isdigit(static_cast<unsigned char>(line[i])) != 0;
        if (kStampShape[i] == 'N' ? !digit : line[i] != kStampShape[i]) {
            return -1;
        }
    }
    char name[8] = {};
    int line_pid = 0, tid = 0, module = 0, level = 0, t = 0, i = 0, rest = 0;
    if (std::sscanf(line.c_str() + stamp_len, "%7s %d:%d [%d] L%d t%d i%d %n", name, &line_pid,
                    &tid, &module, &level, &t, &i, &rest) != 7 ||
        line_pid != pid || module != 10 || level < 0 || level > 3 ||
        std::strcmp(name, kNames[level]) != 0) {
        return -1;
    }
    const std::string pad(300, static_cast<char>('a' + t));
    return line.compare(stamp_len + static_cast<size_t>(rest), std::string::npos, pad) == 0 ? level : -1;
}

ChildResult run_child(const char *level_value)
{
    const std::string path = testing::TempDir() + "dlog_child_" + std::to_string(getpid()) + ".log";
    std::remove(path.c_str());
    std::vector<std::string> env_text = {std::string(kChildFlag) + "=1",
                                         "VELMAR_LOG_FILE=" + path};
    if (level_value != nullptr) {
        env_text.push_back(std::string("VELMAR_LOG_LEVEL=") + level_value);
    }
    for (char **e = environ; *e != nullptr; ++e) {
        if (std::strncmp(*e, "VELMAR_LOG_", 11) != 0) {
            env_text.emplace_back(*e);
        }
    }
    std::vector<char *> envp;
    for (auto &s : env_text) {
        envp.push_back(s.data());
    }
    envp.push_back(nullptr);
    char exe[] = "/proc/self/exe";
    char *argv[] = {exe, nullptr};
    pid_t pid = 0;
    EXPECT_EQ(posix_spawn(&pid, exe, nullptr, nullptr, argv, envp.data()), 0);
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

    ChildResult result;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        const int level = parse_child_line(line, pid);
        if (level >= 0) {
            ++result.lines_per_level[level];
        } else {
            result.bad_lines.push_back(line);
        }
    }
    std::remove(path.c_str());
    return result;
}

TEST(Dlog, EnvironmentChoosesTheLevelAndFileLinesStayWhole)
{
    const struct {
        const char *value;
        int lowest_enabled;
    } cases[] = {{nullptr, 2}, {"debug", 0},   {"INFO", 1},  {"warning", 2},
                 {"error", 3}, {"0", 0},       {"3", 3},     {"nonsense", 2}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.value == nullptr ? "(unset)" : c.value);
        const ChildResult r = run_child(c.value);
        EXPECT_TRUE(r.bad_lines.empty()) << r.bad_lines.size() << " bad lines, first: "
                                         << (r.bad_lines.empty() ? "" : r.bad_lines[0]);
        for (int level = 0; level < 4; ++level) {
            const int expected = level >= c.lowest_enabled ? kChildThreads * kChildLinesPerLevel : 0;
            EXPECT_EQ(r.lines_per_level[level], expected) << "level " << level;
        }
    }
}

struct Captured {
    std::vector<std::pair<int, std::string>> lines;
};

void capture(int level, const char *line, void *ctx)
{
    static_cast<Captured *>(ctx)->lines.emplace_back(level, line);
}

TEST(Dlog, SinkReceivesExactlyTheLinesThatPassTheLevel)
{
    const int env_level = host_dlog_get_level();
    Captured cap;
    host_dlog_set_sink(capture, &cap);
    host_dlog_set_level(0);
    EXPECT_EQ(CheckLogLevel(10, 0), 1);
    DlogDebugInner(10, "d%d", 0);
    DlogInfoInner(10, "i %s\n", "x");
    host_dlog_set_level(3);
    EXPECT_EQ(CheckLogLevel(10, 2), 0);
    EXPECT_EQ(CheckLogLevel(10, 3), 1);
    DlogWarnInner(10, "hidden");
    DlogErrorInner(10, "e%c", '!');
    host_dlog_set_level(4);
    EXPECT_EQ(CheckLogLevel(10, 3), 0);
    DlogErrorInner(10, "silenced");
    host_dlog_set_level(-1);
    EXPECT_EQ(host_dlog_get_level(), env_level);
    host_dlog_set_sink(nullptr, nullptr);
    errno = ENOTTY;
    DlogErrorInner(10, "after the sink is gone (expected on stderr)");
    EXPECT_EQ(errno, ENOTTY) << "logging changed the caller's errno";

    const std::vector<std::pair<int, std::string>> expected = {
        {0, "d0"}, {1, "i x\n"}, {3, "e!"}};
    EXPECT_EQ(cap.lines, expected);
}

TEST(Dlog, SinkChangesRaceFreelyWithLoggingThreads)
{
    std::atomic<int> counts[2] = {0, 0};
    auto count = [](int, const char *, void *ctx) {
        static_cast<std::atomic<int> *>(ctx)->fetch_add(1, std::memory_order_relaxed);
    };
    host_dlog_set_level(3);
    host_dlog_set_sink(count, &counts[0]);
    std::atomic<bool> stop{false};
    std::vector<std::thread> loggers;
    for (int t = 0; t < 4; ++t) {
        loggers.emplace_back([&] {
            for (int i = 0; i < 2000; ++i) {
                DlogErrorInner(10, "line %d", i);
            }
        });
    }
    std::thread switcher([&] {
        for (int i = 0; !stop.load(); ++i) {
            host_dlog_set_sink(count, &counts[i % 2]);
        }
    });
    for (auto &th : loggers) {
        th.join();
    }
    stop = true;
    switcher.join();
    host_dlog_set_sink(nullptr, nullptr);
    host_dlog_set_level(-1);
    EXPECT_EQ(counts[0].load() + counts[1].load(), 4 * 2000);
}

} // namespace

// Which function a captured log line names. Operators find a fault by the function in
// the prefix "[path:line][device monitor] [function line] " (and, for Drv_check and
// Assert lines, in the "[function line]" of the text); both must name the same function
// with the same line.
#pragma once

#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "support/log_capture.h"

namespace velmar::test {

// Passes when `log` holds a line whose message contains `text` and every such line names
// `writer` consistently; the first such line is described on failure.
inline ::testing::AssertionResult written_by(const LogCapture &log, const std::string &text,
                                             const std::string &writer)
{
    static const std::regex prefix(R"(^\[[^\]]+:(\d+)\]\[device monitor\] \[(\S+) (\d+)\] )");
    static const std::regex inner(R"(^\[(\S+) (\d+)\] (Drv_check|Assert):)");
    static const std::regex named(R"(^(\S+) (\d+) )"); // texts that print "%s %d " first
    bool seen = false;
    for (const std::string &line : log.lines()) {
        std::smatch head;
        if (!std::regex_search(line, head, prefix)) {
            continue;
        }
        const std::string message = head.suffix().str();
        if (message.find(text) == std::string::npos) {
            continue;
        }
        seen = true;
        if (head[2] != writer || head[1] != head[3]) {
            return ::testing::AssertionFailure() << "expected " << writer << " in: " << line;
        }
        std::smatch body;
        if (std::regex_search(message, body, inner) && (body[1] != writer || body[2] != head[1])) {
            return ::testing::AssertionFailure() << "expected [" << writer << " " << head[1]
                                                 << "] in the text of: " << line;
        }
        if (std::regex_search(message, body, named) && body[2] == head[1] && body[1] != writer) {
            return ::testing::AssertionFailure() << "expected " << writer << " at the start of the text of: "
                                                 << line;
        }
    }
    if (!seen) {
        return ::testing::AssertionFailure() << "no line with \"" << text << "\" in:\n" << log.dump();
    }
    return ::testing::AssertionSuccess();
}

} // namespace velmar::test

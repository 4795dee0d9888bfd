/* SPDX-License-Identifier: Apache-2.0 */
// Which function a captured log line names. Operators find a fault by the function in
// the prefix "[path:line][device monitor] [function line] " (and, for Drv_check and
// Assert lines, in the "[function line]" of the text); both must name the same function
// with the same line.
#pragma once

#include <gtest/gtest.h>

#include <cctype>
#include <string>

#include "support/log_capture.h"

namespace velmar::test {

namespace log_writer_detail {

// Reads "[<name> <digits>]" or "<name> <digits> " at `pos`: the name and the number,
// and the position after it; false when the text does not have that shape.
inline bool name_and_line(const std::string &s, size_t pos, bool bracketed, std::string &name,
                          std::string &line, size_t &end)
{
    if (bracketed && (pos >= s.size() || s[pos++] != '[')) {
        return false;
    }
    const size_t space = s.find(' ', pos);
    if (space == std::string::npos || space == pos) {
        return false;
    }
    size_t digits = space + 1;
    while (digits < s.size() && std::isdigit(static_cast<unsigned char>(s[digits])) != 0) {
        digits++;
    }
    const char closing = bracketed ? ']' : ' ';
    if (digits == space + 1 || digits >= s.size() || s[digits] != closing) {
        return false;
    }
    name = s.substr(pos, space - pos);
    line = s.substr(space + 1, digits - space - 1);
    end = digits + 1;
    return name.find_first_of("[]") == std::string::npos;
}

} // namespace log_writer_detail

// Passes when `log` holds a line whose message contains `text` and every such line names
// `writer` consistently: in the prefix "[path:line][device monitor] [writer line] ", in a
// Drv_check / Assert text "[writer line] ...", and in a text that prints "writer line "
// first. The first offending line is described on failure.
inline ::testing::AssertionResult written_by(const LogCapture &log, const std::string &text,
                                             const std::string &writer)
{
    using log_writer_detail::name_and_line;
    const std::string kModule = "][device monitor] "; // not static: leak checks count blocks
    bool seen = false;
    for (const std::string &line : log.lines()) {
        const size_t module = line.find(kModule);
        const size_t colon = module == std::string::npos ? module : line.rfind(':', module);
        std::string name;
        std::string number;
        size_t message_at = 0;
        if (line.empty() || line[0] != '[' || colon == std::string::npos ||
            !name_and_line(line, module + kModule.size(), true, name, number, message_at) ||
            message_at >= line.size() || line[message_at] != ' ') {
            continue;
        }
        const std::string path_line = line.substr(colon + 1, module - colon - 1);
        const std::string message = line.substr(message_at + 1);
        if (message.find(text) == std::string::npos) {
            continue;
        }
        seen = true;
        if (name != writer || number != path_line) {
            return ::testing::AssertionFailure() << "expected " << writer << " in: " << line;
        }
        std::string inner;
        std::string inner_line;
        size_t after = 0;
        const bool checks = message.find("] Drv_check:") != std::string::npos ||
                            message.find("] Assert:") != std::string::npos;
        if (checks && (!name_and_line(message, 0, true, inner, inner_line, after) ||
                       inner != writer || inner_line != number)) {
            return ::testing::AssertionFailure() << "expected [" << writer << " " << number
                                                 << "] in the text of: " << line;
        }
        if (name_and_line(message, 0, false, inner, inner_line, after) && inner_line == number &&
            inner != writer) {
            return ::testing::AssertionFailure() << "expected " << writer
                                                 << " at the start of the text of: " << line;
        }
    }
    if (!seen) {
        return ::testing::AssertionFailure() << "no line with \"" << text << "\" in:\n" << log.dump();
    }
    return ::testing::AssertionSuccess();
}

} // namespace velmar::test

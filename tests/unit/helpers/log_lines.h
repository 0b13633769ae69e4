// log_lines.h - what a piece of code logs, to the letter.
#ifndef TESTS_UNIT_HELPERS_LOG_LINES_H
#define TESTS_UNIT_HELPERS_LOG_LINES_H

#include "helpers/output.h"
#include "log/log.h"

#include <regex>
#include <string>

namespace test {

/** The printed text with a '|' in the place of each log line's header. */
inline std::string without_headers(std::string text) {
    constexpr std::string_view kHeaderEnd = "]:: ";
    for (size_t end = text.find(kHeaderEnd); end != std::string::npos;
         end = text.find(kHeaderEnd)) {
        const size_t begin = text.rfind('[', text.rfind(" pid=", end));
        if (begin == std::string::npos) {
            break; // no header
        }
        text.replace(begin, end + kHeaderEnd.size() - begin, "|");
    }
    return text;
}

/** Run an action with the log on standard output; what it printed, '|' for each log header. */
template <typename Action>
std::string log_of(Action action) {
    log_debug = 1;
    std::string text = without_headers(output_of(action));
    log_debug = 0;
    return text;
}

/** A text with the digits of its times replaced: "12.345678 sec" becomes "# sec". */
inline std::string without_times(std::string_view text) {
    std::string plain;
    size_t at = 0;
    constexpr std::string_view kTime = "total time:";
    for (size_t found = text.find(kTime); found != std::string_view::npos;
         found = text.find(kTime, at)) {
        const size_t digits = found + kTime.size();
        plain += text.substr(at, digits - at);
        at = std::min(text.find_first_not_of("0123456789.", digits), text.size());
        plain += at > digits ? "#" : "";
    }
    return plain += text.substr(at);
}

/**
 * Run an action and return its log messages. In a message that begins with a function's name and a
 * source line ("name:123:") the number is "#", but only where the header names the same function.
 */
template <typename Action>
std::string messages_of(Action action) {
    log_debug = 1;
    const std::string output = output_of(action);
    log_debug = 0;
    static const std::regex numbered(R"(\[[^\n]*/ *(\w+)/ *(\d+) \]:: \1:\2:)");
    static const std::regex header(R"(\[[^\n]*/ *\w+/ *\d+ \]:: )");
    return std::regex_replace(std::regex_replace(output, numbered, "$1:#:"), header, "");
}

} // namespace test

#endif

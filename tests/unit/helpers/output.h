// output.h - what a piece of code prints on standard output.
#ifndef TESTS_UNIT_HELPERS_OUTPUT_H
#define TESTS_UNIT_HELPERS_OUTPUT_H

#include <atomic>
#include <cstdio>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <thread>

namespace test {

/** Run an action and return what it printed. */
template <typename Action>
std::string output_of(Action action) {
    testing::internal::CaptureStdout();
    action();
    return testing::internal::GetCapturedStdout();
}

/** The same while another thread prints one '~' after the other. */
template <typename Action>
std::string output_among_others(Action action) {
    return output_of([&action] {
        std::atomic<bool> is_printing{false};
        std::atomic<bool> end{false};
        std::thread other([&] {
            while (!end) {
                (void)putchar('~');
                is_printing = true;
            }
        });
        while (!is_printing) {
            std::this_thread::yield();
        }
        action();
        end = true;
        other.join();
    });
}

/** How often a text stands in another. */
inline int occurrences(std::string_view text, std::string_view wanted) {
    int count = 0;
    for (size_t at = text.find(wanted); at != std::string_view::npos;
         at = text.find(wanted, at + wanted.size())) {
        count += 1;
    }
    return count;
}

/** The text ends a log line: the header's end goes directly before it, and nothing behind it. */
inline bool ends_as_log_line(std::string_view text, std::string_view message) {
    return text.ends_with("]:: " + std::string(message));
}

} // namespace test

#endif

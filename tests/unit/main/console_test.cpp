// console_test.cpp - standard output that goes to the terminal.
//
// The command's answer is played by other commands where a test says so, and every open is
// recorded.
#include "main/main.h"

#include "board/board.h"
#include "helpers/forked.h"
#include "helpers/temp_files.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <poll.h>
#include <pty.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

struct Opening {
    std::string name;
    int flags;

    bool operator==(const Opening &) const = default;
};

struct Calls {
    std::vector<std::string> commands; // and their modes
    std::vector<Opening> openings;
    std::optional<std::string> command; // run instead; empty: it cannot be run
    bool dup2_fails = false;
    bool answer_breaks_off = false;
};

// Each test changes and reads it in a process of its own.
Calls g_calls;

// Some text without an end, then an error.
ssize_t read_some_text(void *cookie, char *text, size_t size) {
    auto *is_read = static_cast<bool *>(cookie);
    if (*is_read) {
        errno = EIO;
        return -1;
    }
    *is_read = true;
    constexpr std::string_view kSome = "/dev/nu";
    return static_cast<ssize_t>(kSome.copy(text, size));
}

FILE *answer_that_breaks_off() {
    static bool is_read = false;
    return fopencookie(&is_read, "r", {read_some_text, nullptr, nullptr, nullptr});
}

} // namespace

// Visible outside: a sanitizer's library calls the wrapped names, too.
#pragma GCC visibility push(default)

extern "C" {

FILE *__real_my_popen(const char *command, const char *mode);
FILE *__wrap_my_popen(const char *command, const char *mode);
int __real_open(const char *name, int flags, ...);
int __wrap_open(const char *name, int flags, ...);
int __real_dup2(int from, int to);
int __wrap_dup2(int from, int to);

FILE *__wrap_my_popen(const char *command, const char *mode) {
    g_calls.commands.insert(g_calls.commands.end(), {command, mode});
    if (g_calls.answer_breaks_off) {
        return answer_that_breaks_off();
    }
    if (!g_calls.command) {
        return __real_my_popen(command, mode);
    }
    if (g_calls.command->empty()) {
        errno = EMFILE;
        return nullptr;
    }
    return __real_my_popen(g_calls.command->c_str(), mode);
}

int __wrap_open(const char *name, int flags, ...) {
    g_calls.openings.push_back({name, flags});
    return __real_open(name, flags, 0600); // the mode counts for files that open makes
}

int __wrap_dup2(int from, int to) {
    if (g_calls.dup2_fails) {
        errno = EBUSY;
        return -1;
    }
    return __real_dup2(from, to);
}

} // extern "C"

#pragma GCC visibility pop

namespace {

constexpr int kFlags = 0x1B6;

// No other process of ours is left behind, neither running nor ended.
bool has_no_children() {
    return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

// Where standard input is no terminal; what the call returns is printed last.
test::Ended run_ptoc(const std::optional<std::string> &command, bool dup2_fails = false) {
    return test::run_forked([&] {
        const int nothing = __real_open("/dev/null", O_RDONLY | O_CLOEXEC);
        (void)__real_dup2(nothing, STDIN_FILENO);
        g_calls.command = command;
        g_calls.dup2_fails = dup2_fails;
        const int descriptors = test::open_descriptors();
        const int result = ptoc();
        EXPECT_EQ(test::open_descriptors(), descriptors) << "a descriptor stayed open";
        EXPECT_TRUE(has_no_children());
        (void)printf("result %d\n", result);
    });
}

std::string says(const std::string &text) {
    return "printf '" + text + "'";
}

TEST(Ptoc, LeavesStandardOutputAloneWithoutATerminal) {
    EXPECT_EQ(run_ptoc({}).output, "result -1\n");
}

TEST(Ptoc, LeavesStandardOutputAloneWhenTheCommandSaysNothing) {
    EXPECT_EQ(run_ptoc("true").output, "result -1\n");
    EXPECT_EQ(run_ptoc(says("\\n")).output, "result -1\n");
    EXPECT_EQ(run_ptoc(says("\\000\\n")).output, "result -1\n");
}

TEST(Ptoc, SaysWhenTheCommandCannotBeRun) {
    EXPECT_EQ(run_ptoc("").output, "|ptoc: run tty: Too many open files\nresult -1\n");
}

TEST(Ptoc, TakesNoPartOfALongNameForTheTerminal) {
    const test::TempDirectory directory;
    const std::string whole = test::write_file(directory.path("1234567890"), {}); // 31 characters
    ASSERT_EQ(whole.size(), 30U + 1);
    (void)test::write_file(whole.substr(0, 30), {});
    const std::string refused =
        "|ptoc: name of terminal '" + whole + "': no line of at most 30 characters\nresult -1\n";
    EXPECT_EQ(run_ptoc(says(whole + "\\n")).output, refused);
    EXPECT_EQ(run_ptoc(says(whole)).output, refused);
    EXPECT_EQ(run_ptoc(says(whole + whole + whole + "\\n")).output, refused);
    EXPECT_EQ(run_ptoc("yes /dev/null | tr -d '\\n'").output,
              "|ptoc: name of terminal '/dev/null/dev/null/dev/null/dev': no line of at most 30 "
              "characters\nresult -1\n");
}

TEST(Ptoc, TakesNoPartOfALineForTheTerminal) {
    EXPECT_EQ(run_ptoc(says("/dev/nullx")).output,
              "|ptoc: name of terminal '/dev/nullx': no line of at most 30 characters\n"
              "result -1\n");
}

TEST(Ptoc, TakesNothingOfAnAnswerThatBreaksOff) {
    const test::Ended ended = test::run_forked([] {
        g_calls.answer_breaks_off = true;
        (void)printf("result %d, %zu opened\n", ptoc(), g_calls.openings.size());
    });
    EXPECT_EQ(ended.output, "result -1, 0 opened\n");
}

TEST(Ptoc, ReturnsAFailedOpening) {
    const test::TempDirectory directory;
    EXPECT_EQ(run_ptoc(says(directory.path(".") + "\\n")).output, "result -1\n");
}

TEST(Ptoc, SaysWhenTheTerminalDoesNotBecomeStandardOutput) {
    EXPECT_EQ(run_ptoc(says("/dev/null\\n"), true).output, "|err in dup2\nresult 0\n");
}

TEST(Ptoc, OpensWhatTheCommandNamesAndNothingElse) {
    const test::TempDirectory directory;
    const std::string name = test::write_file(directory.path("123456789"), {}); // 30 characters
    ASSERT_EQ(name.size(), 30U);
    const test::Ended ended = test::run_forked([&] {
        g_calls.command = says(name + "\\nanother line\\n");
        const int result = ptoc();
        (void)printf("result %d\n", result);
        (void)printf("%s %s\n", g_calls.commands.at(0).c_str(), g_calls.commands.at(1).c_str());
        const bool opened = g_calls.openings == std::vector<Opening>{{name, kFlags}};
        (void)printf("%s\n", opened ? "opened" : "not opened");
    });
    EXPECT_EQ(ended.status, test::kReturned);
    EXPECT_EQ(ended.output, "");
    const std::vector<uint8_t> text = test::read_file(name);
    EXPECT_EQ(std::string(text.begin(), text.end()), "result 1\ntty r\nopened\n");
}

// The lowest descriptor, where a host has closed its standard input.
TEST(Ptoc, TakesATerminalThatIsOpenedAsDescriptorZero) {
    const test::TempDirectory directory;
    const std::string name = test::write_file(directory.path("t"), {});
    const test::Ended ended = test::run_forked([&] {
        (void)close(STDIN_FILENO);
        g_calls.command = says(name + "\\n");
        const int result = ptoc();
        (void)printf("result %d, %s\n", result,
                     fcntl(STDIN_FILENO, F_GETFD) == -1 ? "closed" : "open");
    });
    EXPECT_EQ(ended.status, test::kReturned);
    EXPECT_EQ(ended.output, "");
    const std::vector<uint8_t> text = test::read_file(name);
    EXPECT_EQ(std::string(text.begin(), text.end()), "result 1, open\n");
}

TEST(Ptoc, LetsOutputGoToTheTerminalOfStandardInput) {
    int terminal = -1;
    int inside = -1;
    ASSERT_EQ(openpty(&terminal, &inside, nullptr, nullptr, nullptr), 0);
    test::Forked host([inside] {
        (void)__real_dup2(inside, STDIN_FILENO);
        const int descriptors = test::open_descriptors();
        const int result = ptoc();
        (void)printf("result %d, %d more, %s\n", result, test::open_descriptors() - descriptors,
                     has_no_children() ? "no child" : "a child");
    });
    const test::Ended ended = host.wait();
    EXPECT_EQ(ended.status, test::kReturned);
    EXPECT_EQ(ended.output, "");
    std::string shown(200, '\0');
    pollfd something{.fd = terminal, .events = POLLIN, .revents = 0};
    constexpr int kNever = 10000; // ms; the text is there already
    ASSERT_EQ(poll(&something, 1, kNever), 1);
    const ssize_t got = read(terminal, shown.data(), shown.size());
    shown.resize(static_cast<size_t>(std::max<ssize_t>(got, 0)));
    EXPECT_EQ(shown, "result 1, 1 more, no child\r\n");
    (void)close(inside);
    (void)close(terminal);
}

} // namespace

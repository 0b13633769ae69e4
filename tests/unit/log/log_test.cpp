// log_test.cpp - what a log line looks like, where it goes and when the file changes.
//
// Linked with --wrap=gettimeofday,getpid,localtime_r,vfprintf,fopen,fclose: a test sets the clock
// of its thread, acts in the middle of a log call (the process id is asked for after the file is
// opened and before the line is written), has the log files in a directory of its own and sees when
// one is closed.
#include "log/log.h"

#include "base/relaxed.h"
#include "base/stdout_guard.h"
#include "helpers/log_directory.h"
#include "helpers/output.h"
#include "log/write.h"
#include "stand_ins/lock_count.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

thread_local const timeval *t_clock = nullptr;                       // null = the real time
thread_local const std::function<void()> *t_amid_the_call = nullptr; // run once
std::atomic<FILE *> g_observed_file{nullptr};
std::atomic<int> g_locks_at_look_up{0};
std::atomic<bool> g_keeps_others_out{false}; // while the second half of a line is written
std::atomic<bool> g_is_closed{false}; // the observed file; it really closes at the test's end

// Taken before anything in this process logs.
const bool g_started_at_zero =
    log_debug == 0 && log_d == 0 && log_num == 0 && log_lastday == 0 && log_fp == nullptr;

} // namespace

extern "C" {

int __real_gettimeofday(timeval *now, void *zone);
int __wrap_gettimeofday(timeval *now, void *zone);
int __real_fclose(FILE *file);
int __wrap_fclose(FILE *file);
pid_t __real_getpid();
pid_t __wrap_getpid();
int __real_vfprintf(FILE *out, const char *format, va_list arguments);
int __wrap_vfprintf(FILE *out, const char *format, va_list arguments);

int __wrap_vfprintf(FILE *out, const char *format, va_list arguments) {
    std::thread([out] {
        g_keeps_others_out = ftrylockfile(out) != 0;
        if (!g_keeps_others_out) {
            funlockfile(out);
        }
    }).join();
    return __real_vfprintf(out, format, arguments);
}

tm *__real_localtime_r(const time_t *time, tm *result);
tm *__wrap_localtime_r(const time_t *time, tm *result);

tm *__wrap_localtime_r(const time_t *time, tm *result) {
    g_locks_at_look_up = test::locks_held();
    return __real_localtime_r(time, result);
}

int __wrap_gettimeofday(timeval *now, void *zone) {
    if (t_clock == nullptr) {
        return __real_gettimeofday(now, zone);
    }
    *now = *t_clock;
    return 0;
}

int __wrap_fclose(FILE *file) {
    if (file == g_observed_file) {
        g_is_closed = true;
        return fflush(file);
    }
    return __real_fclose(file);
}

pid_t __wrap_getpid() {
    if (t_amid_the_call != nullptr) {
        (*std::exchange(t_amid_the_call, nullptr))();
    }
    return __real_getpid();
}
}

namespace {

// 2025-03-07 09:05:03 UTC and the last second of that day.
constexpr time_t kMorning = 1741338303;
constexpr time_t kLastSecond = 1741391999;

std::string content_of(const std::string &name, size_t from = 0) {
    std::ostringstream content;
    std::ifstream file(name);
    (void)file.seekg(static_cast<std::streamoff>(from));
    content << file.rdbuf();
    return content.str();
}

class LogTest : public testing::Test {
protected:
    void SetUp() override {
        set_zone("UTC");
        std::string pattern = testing::TempDir() + "ruk_log_XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        directory_ = pattern;
        test::set_log_directory(directory_);
        set_clock(kMorning, 42000);
    }

    void TearDown() override {
        t_clock = nullptr;
        t_amid_the_call = nullptr;
        if (log_fp != nullptr) {
            (void)fclose(log_fp);
        }
        log_fp = nullptr;
        log_debug = log_d = log_num = log_lastday = 0;
        test::set_log_directory("");
        std::filesystem::remove_all(directory_);
    }

    static void set_zone(const char *zone) {
        (void)setenv("TZ", zone, 1);
        tzset();
    }

    void set_clock(time_t seconds, suseconds_t microseconds) {
        clock_ = {.tv_sec = seconds, .tv_usec = microseconds};
        t_clock = &clock_;
    }

    std::string file_name(int number) const {
        return directory_ + "/ruk_log" + std::to_string(number) + ".txt";
    }

    std::string file(int number, size_t from = 0) const {
        return content_of(file_name(number), from);
    }

    bool has_file(int number) const {
        return std::filesystem::exists(file_name(number));
    }

    std::string directory_;
    timeval clock_{};
};

// ---------------------------------------------------------------------------------------------
// The header

std::string printed(const char *file, const char *function, int line) {
    log_debug = 1;
    return test::output_of([=] { log_write(file, function, line, "text\n"); });
}

std::string head_at(const std::string &time) {
    return "[" + time + " pid=" + std::to_string(getpid()) + "] [ ";
}

using LogHeader = LogTest;

TEST_F(LogHeader, HasFixedWidths) {
    EXPECT_EQ(printed("raw_msg.c", "main", 1785), head_at("2025/03/07 09:05:03.042") +
                                                      " raw_msg.c/" + std::string(26, ' ') +
                                                      "main/ 1785 ]:: text\n");
}

TEST_F(LogHeader, DoesNotCutLongNames) {
    const std::string file = "eleven_chars.cpp";
    const std::string function(31, 'f');
    EXPECT_EQ(printed(file.c_str(), function.c_str(), 123456),
              head_at("2025/03/07 09:05:03.042") + file + "/" + function + "/123456 ]:: text\n");
}

TEST_F(LogHeader, TruncatesMilliseconds) {
    const struct {
        suseconds_t microseconds;
        const char *milliseconds;
    } rows[] = {{0, "000"},      {999, "000"},    {1000, "001"},  {1999, "001"},
                {9999, "009"},   {42999, "042"},  {99999, "099"}, {500500, "500"},
                {999000, "999"}, {999499, "999"}, {999999, "999"}};
    for (const auto &row : rows) {
        set_clock(kMorning, row.microseconds);
        EXPECT_TRUE(
            printed("a.c", "f", 1)
                .starts_with(head_at(std::string("2025/03/07 09:05:03.") + row.milliseconds)))
            << row.microseconds;
    }
}

TEST_F(LogHeader, PadsEachPartOfTheTime) {
    set_clock(1767323105, 7000); // one-digit month, day, hour, minute and second
    EXPECT_TRUE(printed("a.c", "f", 1).starts_with(head_at("2026/01/02 03:05:05.007")));
    set_clock(kLastSecond, 999999);
    EXPECT_TRUE(printed("a.c", "f", 1).starts_with(head_at("2025/03/07 23:59:59.999")));
}

TEST_F(LogHeader, ShowsLocalTimeAndStoresItsDay) {
    set_zone("TST+10"); // ten hours west: still the evening before
    EXPECT_TRUE(printed("a.c", "f", 1).starts_with(head_at("2025/03/06 23:05:03.042")));
    EXPECT_EQ(log_lastday, 6);
}

constexpr int kAnswerLine = __LINE__ + 2;
void log_the_answer() {
    LOG("%s %d\n", "answer", 42);
}

TEST_F(LogHeader, NamesThePlaceOfTheCall) {
    log_debug = 1;
    const std::string text = test::output_of(log_the_answer);
    const std::regex form(R"(^\[\d{4}/\d\d/\d\d \d\d:\d\d:\d\d\.\d{3} pid=(\d+)\] )"
                          R"(\[ log_test\.cpp/ {16}log_the_answer/ {0,4}(\d+) \]:: answer 42\n$)");
    std::smatch parts;
    ASSERT_TRUE(std::regex_match(text, parts, form)) << text;
    EXPECT_EQ(parts[1], std::to_string(getpid()));
    EXPECT_EQ(parts[2], std::to_string(kAnswerLine));
}

TEST_F(LogHeader, IsWrittenAsItIs) {
    EXPECT_TRUE(printed("%s%n.c", "%d%%", 1)
                    .ends_with("    %s%n.c/" + std::string(26, ' ') + "%d%%/    1 ]:: text\n"));
}

TEST_F(LogHeader, EndsAfter1023Characters) {
    const std::string text = printed("a.c", std::string(3000, 'f').c_str(), 1);
    EXPECT_EQ(text.size(), 1023 + std::string("text\n").size());
    EXPECT_TRUE(text.ends_with("ffftext\n"));
}

// The header of a call in a lambda names operator(); from here on no test looks at that name.
// NOLINTBEGIN(bugprone-lambda-function-name)

// ---------------------------------------------------------------------------------------------
// The switches

using LogSwitches = LogTest;

TEST_F(LogSwitches, AreZeroAtProgramStart) {
    EXPECT_TRUE(g_started_at_zero);
}

TEST_F(LogSwitches, DecideWhereALineGoes) {
    const struct {
        int debug;
        int d;
    } rows[] = {{0, 0}, {0, 1}, {1, 0}, {1, 1}, {-1, 0}, {0, 2}};
    for (const auto &row : rows) {
        log_debug = row.debug;
        log_d = row.d;
        const std::string before = file(0);
        const std::string on_output = test::output_of([] { LOG("line\n"); });
        const std::string in_file = file(0).substr(before.size());
        EXPECT_EQ(test::ends_as_log_line(on_output, "line\n"), row.debug != 0);
        EXPECT_EQ(on_output.empty(), row.debug == 0);
        EXPECT_EQ(test::ends_as_log_line(in_file, "line\n"), row.d != 0);
        EXPECT_EQ(in_file.empty(), row.d == 0);
    }
}

TEST_F(LogSwitches, PutTheSameBytesIntoFileAndOutput) {
    log_debug = log_d = 1;
    const std::string on_output = test::output_of([] {
        LOG("%s=%d %c%c", "a", 1, '\0', 'z'); // no line end: the next line goes on behind it
        LOG("100%%\n");
    });
    EXPECT_EQ(file(0), on_output);
    EXPECT_EQ(test::occurrences(on_output, "]:: a=1 " + std::string("\0z[", 3)), 1);
    EXPECT_TRUE(test::ends_as_log_line(on_output, "100%\n"));
}

TEST_F(LogSwitches, KeepALongMessageWhole) {
    log_debug = log_d = 1;
    // Around every size that a line buffer may have.
    std::vector<size_t> sizes{0, 1, 5000, 100000};
    for (const size_t middle : {256U, 1024U, 2048U, 4096U}) {
        for (size_t size = middle - 130; size <= middle + 2; size++) {
            sizes.push_back(size);
        }
    }
    size_t before = 0;
    for (const size_t size : sizes) {
        std::string message(size, 'm');
        std::generate(message.begin(), message.end(),
                      [n = 0]() mutable { return static_cast<char>('a' + n++ % 26); });
        const std::string on_output = test::output_of([&] { LOG("%s\n", message.c_str()); });
        EXPECT_TRUE(test::ends_as_log_line(on_output, message + "\n")) << size;
        EXPECT_EQ(file(0, before), on_output) << size;
        before += on_output.size();
    }
}

// ---------------------------------------------------------------------------------------------
// The file

using LogFile = LogTest;

TEST_F(LogFile, IsEmptiedByTheFirstCallAndStaysEmptyByDefault) {
    std::ofstream(file_name(0)) << "of an earlier run\n";
    log_debug = 1;
    const std::string text = test::output_of([] {
        LOG("first\n");
        LOG("second\n");
    });
    EXPECT_EQ(test::occurrences(text, "]:: first\n"), 1);
    EXPECT_EQ(test::occurrences(text, "]:: second\n"), 1);
    EXPECT_TRUE(has_file(0));
    EXPECT_EQ(file(0), "");
    EXPECT_FALSE(has_file(1));
}

TEST_F(LogFile, IsChosenByLogNum) {
    log_num = 1;
    log_d = 1;
    LOG("line\n");
    EXPECT_TRUE(test::ends_as_log_line(file(1), "line\n"));
    EXPECT_FALSE(has_file(0));
}

TEST_F(LogFile, IsOpenedOnce) {
    LOG("first\n");
    FILE *const opened = log_fp;
    LOG("second\n");
    EXPECT_NE(opened, nullptr);
    EXPECT_EQ(log_fp, opened);
    EXPECT_EQ(test::log_openings(), 1);
}

TEST_F(LogFile, HoldsEachLineAsSoonAsTheCallReturns) {
    log_d = 1;
    for (int i = 0; i < 3; i++) {
        LOG("line %d\n", i);
        EXPECT_TRUE(test::ends_as_log_line(file(0), "line " + std::to_string(i) + "\n"));
    }
}

TEST_F(LogFile, MayBeOpenedByTheHostItself) {
    log_d = 1;
    const std::string own = directory_ + "/own";
    log_fp = fopen(own.c_str(), "w");
    LOG("line\n");
    EXPECT_EQ(test::log_openings(), 0);
    EXPECT_TRUE(test::ends_as_log_line(content_of(own), "line\n"));
}

TEST_F(LogFile, IsNotInheritedByShells) {
    LOG("line\n");
    ASSERT_NE(log_fp, nullptr);
    EXPECT_NE(fcntl(fileno(log_fp), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(LogFile, IsTheFasterOneWhenTwoThreadsOpenIt) {
    log_d = 1;
    FILE *faster = fopen((directory_ + "/faster").c_str(), "we");
    ASSERT_NE(faster, nullptr);
    const auto descriptors = [] {
        const std::filesystem::directory_iterator all("/proc/self/fd");
        return std::distance(begin(all), end(all));
    };
    const auto before = descriptors();
    test::set_amid_opening([faster] { log_fp = faster; });
    LOG("line\n");
    EXPECT_EQ(log_fp, faster);
    EXPECT_TRUE(test::ends_as_log_line(content_of(directory_ + "/faster"), "line\n"));
    EXPECT_EQ(descriptors(), before); // the slower one's is closed
}

TEST_F(LogFile, IsTriedAgainByEachCallUntilItOpens) {
    const std::string later = directory_ + "/later";
    test::set_log_directory(later);
    log_debug = log_d = 1;
    const std::string text = test::output_of([] {
        LOG("first\n");
        LOG("second\n");
    });
    EXPECT_EQ(test::log_openings(), 2);
    EXPECT_EQ(log_fp, nullptr);
    EXPECT_EQ(test::occurrences(text, "\n"), 2); // the two lines, and no word about the file
    EXPECT_TRUE(test::ends_as_log_line(text, "second\n"));

    std::filesystem::create_directory(later);
    log_debug = 0;
    LOG("third\n");
    EXPECT_NE(log_fp, nullptr);
    EXPECT_TRUE(test::ends_as_log_line(content_of(later + "/ruk_log0.txt"), "third\n"));
    EXPECT_EQ(test::occurrences(content_of(later + "/ruk_log0.txt"), "\n"), 1);
}

// ---------------------------------------------------------------------------------------------
// Flushing

// Standard output in a file, so that it is buffered in full and only a flush moves the file's size.
class BufferedOutput {
public:
    explicit BufferedOutput(const std::string &name)
        : fd_(open(name.c_str(), O_CREAT | O_TRUNC | O_RDWR | O_CLOEXEC, 0600)) {
        (void)fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        (void)dup2(fd_, STDOUT_FILENO);
        (void)setvbuf(stdout, nullptr, _IOFBF, 0);
    }
    ~BufferedOutput() {
        (void)fflush(stdout);
        (void)dup2(saved_, STDOUT_FILENO);
        (void)setvbuf(stdout, nullptr, isatty(STDOUT_FILENO) == 1 ? _IOLBF : _IOFBF, 0);
        (void)close(saved_);
        (void)close(fd_);
    }
    BufferedOutput(const BufferedOutput &) = delete;
    BufferedOutput &operator=(const BufferedOutput &) = delete;

    off_t arrived() const {
        struct stat status {};
        (void)fstat(fd_, &status);
        return status.st_size;
    }

private:
    int fd_;
    int saved_ = -1;
};

using LogFlush = LogTest;

TEST_F(LogFlush, FlushesEveryStreamWhenThereIsNoLogFile) {
    test::set_log_directory("");
    const std::string other_name = directory_ + "/other";
    FILE *other = fopen(other_name.c_str(), "w");
    ASSERT_NE(other, nullptr);
    off_t before = -1;
    off_t after = -1;
    {
        const BufferedOutput output(directory_ + "/stdout");
        (void)fputs("pending", stdout);
        (void)fputs("pending", other);
        before = output.arrived();
        LOG("shown nowhere\n");
        after = output.arrived();
    }
    EXPECT_EQ(before, 0);
    EXPECT_EQ(after, 7);
    EXPECT_EQ(content_of(other_name), "pending");
    (void)fclose(other);
}

TEST_F(LogFlush, LeavesOtherStreamsAloneWhenThereIsALogFile) {
    off_t after = -1;
    {
        const BufferedOutput output(directory_ + "/stdout");
        (void)fputs("pending", stdout);
        LOG("shown nowhere\n");
        after = output.arrived();
    }
    ASSERT_NE(log_fp, nullptr);
    EXPECT_EQ(after, 0);
}

// Where lines are flushed the end of a message would otherwise wait for the next message.
TEST_F(LogFlush, FlushesStandardOutputBehindAMessageWithoutALineEnd) {
    log_debug = 1;
    off_t behind_a_line = -1;
    off_t behind_a_part = -1;
    {
        const BufferedOutput output(directory_ + "/stdout");
        LOG("a line\n");
        behind_a_line = output.arrived();
        LOG("a part");
        behind_a_part = output.arrived();
    }
    ASSERT_NE(log_fp, nullptr);
    EXPECT_EQ(behind_a_line, 0);
    EXPECT_GT(behind_a_part, 0);
    EXPECT_TRUE(content_of(directory_ + "/stdout").ends_with("]:: a part"));
}

// ---------------------------------------------------------------------------------------------
// errno

using LogErrno = LogTest;

TEST_F(LogErrno, SurvivesAFileThatCannotBeOpened) {
    test::set_log_directory("");
    for (const int value : {0, EAGAIN, EINTR}) {
        errno = value;
        LOG("line\n");
        EXPECT_EQ(errno, value);
    }
    EXPECT_EQ(test::log_openings(), 3);
}

TEST_F(LogErrno, SurvivesAStandardOutputThatIsFull) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0);
    while (write(ends[1], "x", 1) == 1) {
    }
    log_debug = 1;
    (void)fflush(stdout);
    const int saved = dup(STDOUT_FILENO);
    (void)dup2(ends[1], STDOUT_FILENO);
    errno = 0;
    LOG("%s\n", std::string(100000, 'x').c_str());
    const int left = errno;
    errno = 0;
    const bool was_full = write(ends[1], "x", 1) == -1 && errno == EAGAIN;
    (void)close(ends[0]); // what is still buffered has nowhere to go
    (void)dup2(saved, STDOUT_FILENO);
    (void)close(saved);
    (void)close(ends[1]);
    clearerr(stdout);
    EXPECT_EQ(left, 0);
    EXPECT_TRUE(was_full);
}

// ---------------------------------------------------------------------------------------------
// The change of the day

using LogDay = LogTest;

TEST_F(LogDay, IsStoredByEveryCall) {
    LOG("line\n");
    EXPECT_EQ(log_lastday, 7);
    set_clock(kLastSecond + 1, 0);
    LOG("line\n");
    EXPECT_EQ(log_lastday, 8);
}

TEST_F(LogDay, DoesNotChangeTheFileOfASingleThread) {
    log_d = 1;
    set_clock(kLastSecond, 999999);
    LOG("before\n");
    FILE *const opened = log_fp;
    set_clock(kLastSecond + 1, 0);
    LOG("after\n");
    LOG("again\n");
    EXPECT_EQ(log_num, 0);
    EXPECT_EQ(log_fp, opened);
    EXPECT_FALSE(has_file(1));
    EXPECT_EQ(test::occurrences(file(0), "]:: "), 3);
}

void act_amid_the_next_call(const std::function<void()> &action) {
    t_amid_the_call = &action;
}

TEST_F(LogDay, ChangesTheFileWhenAnotherThreadStoredADifferentDay) {
    log_d = 1;
    std::ofstream(file_name(1)) << "of an earlier run\n";
    LOG("first\n");
    const std::function<void()> store_next_day = [] {
        std::thread([] { store_relaxed(log_lastday, 8); }).join();
    };
    act_amid_the_next_call(store_next_day);
    LOG("across midnight\n");
    EXPECT_EQ(log_fp, nullptr); // opened again by the next call only
    EXPECT_EQ(log_num, 1);
    EXPECT_EQ(log_lastday, 8);

    LOG("next\n");
    EXPECT_NE(log_fp, nullptr);
    EXPECT_EQ(log_num, 1);
    EXPECT_EQ(test::occurrences(file(0), "]:: "), 2);
    EXPECT_TRUE(test::ends_as_log_line(file(0), "across midnight\n"));
    EXPECT_TRUE(test::ends_as_log_line(file(1), "next\n"));
    EXPECT_EQ(test::occurrences(file(1), "\n"), 1);

    act_amid_the_next_call(store_next_day);
    LOG("back again\n");
    EXPECT_EQ(log_num, 0);
}

TEST_F(LogDay, ChangesTheFileWhenAnotherThreadLoggedOnADifferentDay) {
    log_d = 1;
    LOG("first\n");
    const std::function<void()> log_next_day = [] {
        std::thread([] {
            const timeval next_day{.tv_sec = kLastSecond + 1, .tv_usec = 0};
            t_clock = &next_day;
            LOG("of the next day\n");
            t_clock = nullptr;
        }).join();
    };
    act_amid_the_next_call(log_next_day);
    LOG("of the old day\n");
    EXPECT_EQ(log_num, 1);
    EXPECT_EQ(log_fp, nullptr);
    EXPECT_EQ(test::occurrences(file(0), "]:: "), 3);
}

TEST_F(LogDay, KeepsTheNumberWhenThereIsNoFileToClose) {
    test::set_log_directory("");
    const std::function<void()> store_next_day = [] {
        std::thread([] { store_relaxed(log_lastday, 8); }).join();
    };
    act_amid_the_next_call(store_next_day);
    LOG("line\n");
    EXPECT_EQ(t_amid_the_call, nullptr);
    EXPECT_EQ(log_num, 0);
}

// A thread stands in the middle of a call that uses the file while another one changes the day so
// many times. Returns whether the file was closed before the slow call had ended.
bool is_closed_amid_a_call(int changes) {
    bool closed_early = false;
    log_d = 1;
    g_observed_file = log_fp = tmpfile();
    g_is_closed = false;
    const timeval clock{.tv_sec = kMorning, .tv_usec = 0};
    const std::function<void()> store_next_day = [] { store_relaxed(log_lastday, 8); };
    const std::function<void()> change_days = [&] {
        std::thread([&] {
            t_clock = &clock;
            for (int i = 0; i < changes; i++) {
                act_amid_the_next_call(store_next_day);
                LOG("of another thread\n");
            }
            t_clock = nullptr;
        }).join();
        closed_early = g_is_closed;
    };
    act_amid_the_next_call(change_days);
    LOG("of the slow thread\n");
    EXPECT_TRUE(g_is_closed); // in the end it is, by whoever used it last
    (void)__real_fclose(g_observed_file.exchange(nullptr));
    return closed_early;
}

TEST_F(LogDay, LeavesTheFileOpenWhileAnotherCallUsesIt) {
    EXPECT_FALSE(is_closed_amid_a_call(1));
}

TEST_F(LogDay, LeavesTheFileOpenWhileAnotherCallUsesItThroughManyChanges) {
    EXPECT_FALSE(is_closed_amid_a_call(2));
    EXPECT_FALSE(is_closed_amid_a_call(5));
}

// ---------------------------------------------------------------------------------------------
// Many threads

using LogThreads = LogTest;

TEST_F(LogThreads, NeverMixTheirLines) {
    constexpr int kThreads = 4;
    constexpr int kLines = 500;
    log_debug = log_d = 1;
    const std::string text = test::output_of([] {
        std::vector<std::thread> threads;
        for (int id = 0; id < kThreads; id++) {
            threads.emplace_back([id] {
                for (int i = 0; i < kLines; i++) {
                    LOG("thread %d line %d\n", id, i);
                }
            });
        }
        std::for_each(threads.begin(), threads.end(), [](std::thread &t) { t.join(); });
    });
    const std::regex form(R"(\[[^\]]*\] \[[^\]]*\]:: thread (\d) line (\d+))");
    std::istringstream lines(text);
    std::vector<int> next(kThreads, 0);
    for (std::string line; std::getline(lines, line);) {
        std::smatch parts;
        ASSERT_TRUE(std::regex_match(line, parts, form)) << line;
        const auto id = static_cast<size_t>(std::stoi(parts[1]));
        EXPECT_EQ(std::stoi(parts[2]), next.at(id)++);
    }
    EXPECT_EQ(next, std::vector<int>(kThreads, kLines));
}

// A message that goes out in two: nobody else may write between them.
TEST_F(LogThreads, KeepHeaderAndLongMessageTogether) {
    log_debug = 1;
    for (const size_t length : {10U, 5000U}) {
        g_keeps_others_out = false;
        (void)test::output_of([&] { LOG("%s\n", std::string(length, 'm').c_str()); });
        EXPECT_EQ(g_keeps_others_out, length == 5000);
    }
}

// The library's own lock must not be held when a process forks, see log.cpp.
TEST_F(LogThreads, LookUpTheTimeZoneUnderALockThatForksWaitFor) {
    g_locks_at_look_up = -1;
    const test::LockUse use = test::locks_of([] { LOG("line\n"); });
    EXPECT_EQ(g_locks_at_look_up, 1);
    EXPECT_EQ(use.taken, 1);
    EXPECT_EQ(use.kept, 0);
    const test::LockUse forks = test::locks_of([] {
        const pid_t child = fork();
        if (child == 0) {
            LOG("line\n");
            _exit(0);
        }
        (void)waitpid(child, nullptr, 0);
    });
    EXPECT_EQ(forks.taken, 1);
    EXPECT_EQ(forks.kept, 0);
}

#ifndef NDEBUG
TEST_F(LogTest, EndsAProcessThatLogsWhileItHoldsStandardOutput) {
    EXPECT_DEATH(
        {
            const StdoutGuard whole_dump;
            LOG("in between\n");
        },
        "a thread that holds standard output");
}
#endif

TEST_F(LogTest, IsFreeAgainBehindWhatIsPrintedTogether) {
    {
        const StdoutGuard outer;
        const StdoutGuard inner;
    }
    log_debug = 1;
    EXPECT_TRUE(test::ends_as_log_line(test::output_of([] { LOG("behind\n"); }), "behind\n"));
}

TEST_F(LogThreads, ChangeTheFileWhenTheyDisagreeAboutTheDay) {
    constexpr int kMostRounds = 20000;
    log_d = 1;
    std::atomic<bool> stop{false};
    std::thread next_day([&] {
        const timeval tomorrow{.tv_sec = kLastSecond + 1, .tv_usec = 0};
        t_clock = &tomorrow;
        while (!stop) {
            LOG("tomorrow\n");
        }
        t_clock = nullptr;
    });
    int changes = 0;
    int number = 0;
    for (int round = 0; round < kMostRounds && changes < 20; round++) {
        LOG("today\n");
        const int now = load_relaxed(log_num);
        changes += now != number ? 1 : 0;
        number = now;
    }
    stop = true;
    next_day.join();
    EXPECT_GT(changes, 0);
    EXPECT_TRUE(has_file(0));
    EXPECT_TRUE(has_file(1));
}

// NOLINTEND(bugprone-lambda-function-name)

} // namespace

// crash_test.cpp - what a host that has called signal_set does when it crashes or is told to end.
//
// The C library's calls are recorded and passed on, unless a test lets them do something else.
#include "main/main.h"

#include "helpers/forked.h"
#include "mem/mem.h"
#include "timer/timer.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <semaphore.h>

#include <cstdlib>
#include <malloc.h>
#include <regex>
#include <sstream>
#include <string>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#if defined(__SANITIZE_THREAD__)
// These handlers call what is not safe in a handler on purpose: the process is at its end.
extern "C" __attribute__((visibility("default"))) const char *__tsan_default_options();
extern "C" const char *__tsan_default_options() {
    return "report_signal_unsafe=0";
}
#endif

namespace {

// The thread sanitizer holds signals other than faults back until the thread waits in a call that
// it knows to wait: no lock is one, and inside a handler all are blocked.
#if defined(__SANITIZE_THREAD__)
constexpr bool kSignalsComeAtOnce = false;
#else
constexpr bool kSignalsComeAtOnce = true;
#endif

// Both sanitizers bring a malloc of their own, which does not lock like the C library's.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr bool kLocksInMalloc = false;
#else
constexpr bool kLocksInMalloc = true;
#endif

using Symbols = char **(*)(void *const *frames, int count);

struct SignalCalls {
    bool are_recorded = false; // in a crash the record would take memory
    std::vector<std::pair<int, signal_handler>> all = {};
};
SignalCalls g_signal_calls;
int g_frames_wanted = 0;       // by the last call of backtrace
int g_frames_given = 0;        // 0: what the real one gives
Symbols g_symbols = nullptr;   // null: the real ones
void (*g_at_free)() = nullptr; // called by every free
void *g_lines = nullptr;       // given by three_lines, until they are freed
unsigned g_alarm_seconds = 0;  // the last alarm was set to

void *address(uintptr_t value) {
    return reinterpret_cast<void *>(value); // NOLINT(performance-no-int-to-ptr)
}

} // namespace

// Visible outside: a sanitizer's library calls the wrapped names, too.
#pragma GCC visibility push(default)

extern "C" {

signal_handler __real_signal(int signo, signal_handler handler);
signal_handler __wrap_signal(int signo, signal_handler handler);
int __real_backtrace(void **frames, int size);
int __wrap_backtrace(void **frames, int size);
char **__real_backtrace_symbols(void *const *frames, int count);
char **__wrap_backtrace_symbols(void *const *frames, int count);
unsigned __real_alarm(unsigned seconds);
unsigned __wrap_alarm(unsigned seconds);
void __real_free(void *memory);
void __wrap_free(void *memory);

signal_handler __wrap_signal(int signo, signal_handler handler) {
    if (g_signal_calls.are_recorded) {
        g_signal_calls.all.emplace_back(signo, handler);
    }
    return __real_signal(signo, handler);
}

int __wrap_backtrace(void **frames, int size) {
    g_frames_wanted = size;
    if (g_frames_given == 0) {
        return __real_backtrace(frames, size);
    }
    for (int i = 0; i < g_frames_given; i++) {
        frames[i] = address(0x1000 + static_cast<uintptr_t>(i));
    }
    return g_frames_given;
}

char **__wrap_backtrace_symbols(void *const *frames, int count) {
    return g_symbols != nullptr ? g_symbols(frames, count)
                                : __real_backtrace_symbols(frames, count);
}

unsigned __wrap_alarm(unsigned seconds) {
    g_alarm_seconds = seconds;
    return __real_alarm(seconds);
}

void __wrap_free(void *memory) {
    if (g_at_free != nullptr) {
        g_at_free();
    }
    if (memory == g_lines) {
        g_lines = nullptr;
    }
    __real_free(memory);
}

// Shows by its name in the stack: the program exports it.
void fault_at(volatile char *place);
__attribute__((noinline)) void fault_at(volatile char *place) {
    *place = 1;
    asm volatile(""); // so that the frame is still there behind it
}

} // extern "C"

#pragma GCC visibility pop

namespace {

const std::string kFirstLine = "|task_die!!!\n";

// A page that nobody may touch; the sanitizers know the address 0 and would report it themselves.
void fault() {
    void *page = mmap(nullptr, 1, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    fault_at(static_cast<char *>(page));
}

// A block in the free lists, so that mem_uinit has something to release.
void fill_pool() {
    mem_free(mem_alloc(64));
}

[[noreturn]] void pause_for_ever() {
    while (true) {
        (void)pause();
    }
}

class Crash : public testing::Test {
protected:
    void TearDown() override {
        for (const int signo : {SIGTERM, SIGINT, SIGQUIT, SIGSEGV, SIGHUP}) {
            (void)__real_signal(signo, SIG_DFL);
        }
        g_signal_calls = {};
        g_frames_given = 0;
        g_symbols = nullptr;
        g_at_free = nullptr;
    }
};

// ---------------------------------------------------------------------------------------------
// signal_set

using SignalSet = Crash;

TEST_F(SignalSet, InstallsItsHandlersInOrderAndIgnoresHangUpsLast) {
    g_signal_calls.are_recorded = true;
    (void)signal_set();
    const std::vector<std::pair<int, signal_handler>> expected = {{SIGTERM, task_die},
                                                                  {SIGINT, task_die},
                                                                  {SIGQUIT, task_die},
                                                                  {SIGSEGV, task_die},
                                                                  {SIGHUP, SIG_IGN}};
    EXPECT_EQ(g_signal_calls.all, expected);
}

void other_handler(int /*signo*/) {
}

TEST_F(SignalSet, ReturnsWhatHangUpsDidBefore) {
    (void)__real_signal(SIGHUP, other_handler);
    EXPECT_EQ(signal_set(), &other_handler);
    EXPECT_EQ(signal_set(), SIG_IGN);
}

TEST_F(SignalSet, ChangesNoSignalMask) {
    sigset_t blocked;
    (void)sigemptyset(&blocked);
    (void)sigaddset(&blocked, SIGUSR1);
    sigset_t original;
    (void)pthread_sigmask(SIG_SETMASK, &blocked, &original);
    (void)signal_set();
    sigset_t after;
    (void)pthread_sigmask(SIG_SETMASK, &original, &after);
    for (int signo = 1; signo < SIGRTMIN; signo++) {
        EXPECT_EQ(sigismember(&after, signo), signo == SIGUSR1 ? 1 : 0) << signo;
    }
}

TEST_F(SignalSet, LeavesHangUpsWithoutEffect) {
    const test::Ended ended = test::run_forked([] {
        (void)signal_set();
        (void)raise(SIGHUP);
        (void)puts("still here");
    });
    EXPECT_EQ(ended.status, test::kReturned);
    EXPECT_EQ(ended.output, "still here\n");
}

TEST_F(SignalSet, LoadsTheUnwinderBeforeACrashNeedsIt) {
    g_frames_wanted = 0;
    (void)signal_set();
    EXPECT_GT(g_frames_wanted, 0);
}

// ---------------------------------------------------------------------------------------------
// putstackinfo

using PutStackInfo = Crash;

char **three_lines(void *const *frames, int count) {
    static char texts[3][12] = {"inner%s", "middle", "outer"};
    EXPECT_EQ(count, 3);
    EXPECT_EQ(frames[2], address(0x1002));
    auto *lines = static_cast<char **>(std::malloc(3 * sizeof(char *)));
    for (size_t i = 0; i < 3; i++) {
        lines[i] = texts[i];
    }
    g_lines = lines;
    return lines;
}

TEST_F(PutStackInfo, LogsTheCountAndEachLineOutermostLast) {
    g_frames_given = 3;
    g_symbols = three_lines;
    EXPECT_EQ(test::log_of(putstackinfo),
              "|backtrace() returned 3 addresses\n|inner%s\n|middle\n|outer\n");
    EXPECT_EQ(g_frames_wanted, 100);
    EXPECT_EQ(g_lines, nullptr) << "not freed";
}

// The stack has to be deeper than what is shown of it.
__attribute__((noinline)) int call_deeply(int depth) {
    if (depth == 0) {
        putstackinfo();
        return 0;
    }
    const int below = call_deeply(depth - 1);
    asm volatile("");
    return below + 1;
}

TEST_F(PutStackInfo, ShowsOneHundredAddressesAtMost) {
    const std::string text = test::log_of([] { (void)call_deeply(150); });
    EXPECT_TRUE(text.starts_with("|backtrace() returned 100 addresses\n")) << text;
    EXPECT_EQ(test::occurrences(text, "\n"), 101) << text;
}

char **no_lines(void *const * /*frames*/, int /*count*/) {
    return nullptr;
}

TEST_F(PutStackInfo, EndsTheProcessWithoutMemoryForTheLines) {
    g_frames_given = 3;
    g_symbols = no_lines;
    const test::Ended ended = test::run_forked(putstackinfo);
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.output, "|backtrace() returned 3 addresses\n|backtrace_symbols");
}

// ---------------------------------------------------------------------------------------------
// task_die

using TaskDie = Crash;

// The lines of a stack behind its count; fails when their number is another.
std::vector<std::string> stack_in(const std::string &output) {
    static const std::regex form(R"(\|task_die!!!\n\|backtrace\(\) returned (\d+) addresses\n)");
    std::smatch parts;
    if (!std::regex_search(output, parts, form, std::regex_constants::match_continuous)) {
        ADD_FAILURE() << output;
        return {};
    }
    std::vector<std::string> lines;
    std::istringstream rest(parts.suffix());
    for (std::string line; std::getline(rest, line);) {
        lines.push_back(line);
    }
    EXPECT_EQ(lines.size(), static_cast<size_t>(std::stoi(parts[1]))) << output;
    return lines;
}

// Where in a stack a name stands first; behind its end when it does not.
size_t place_of(const std::vector<std::string> &stack, const std::string &name) {
    size_t place = 0;
    while (place < stack.size() && stack[place].find(name) == std::string::npos) {
        place++;
    }
    return place;
}

TEST_F(TaskDie, LogsTheStackOfAFaultAndEndsWithStatusZero) {
    const test::Ended ended = test::run_forked([] {
        (void)signal_set();
        fault();
    });
    EXPECT_EQ(ended.status, 0);
    const std::vector<std::string> stack = stack_in(ended.output);
    static const std::regex form(R"(\|[^\n]+\[0x[0-9a-f]+\])");
    for (const std::string &line : stack) {
        EXPECT_TRUE(std::regex_match(line, form)) << line;
    }
    EXPECT_LT(place_of(stack, "(task_die+"), place_of(stack, "(fault_at+")) << ended.output;
    EXPECT_LT(place_of(stack, "(fault_at+"), place_of(stack, "(__libc_start_main+"))
        << ended.output;
    EXPECT_LT(place_of(stack, "(__libc_start_main+"), stack.size()) << ended.output;
}

TEST_F(TaskDie, IsTheSameForEverySignalOfSignalSet) {
    for (const int signo : {SIGTERM, SIGINT, SIGQUIT, SIGSEGV}) {
        const test::Ended ended = test::run_forked([signo] {
            (void)signal_set();
            (void)raise(signo);
        });
        EXPECT_EQ(ended.status, 0) << signo;
        EXPECT_GE(stack_in(ended.output).size(), 3U) << signo;
    }
}

TEST_F(TaskDie, IgnoresItsArgument) {
    for (const int signo : {0, -1, 12345}) {
        EXPECT_EQ(test::run_forked([signo] { task_die(signo); }).status, 0) << signo;
    }
}

TEST_F(TaskDie, ReleasesThePoolAndRunsWhatIsLeftForTheExit) {
    const test::Ended ended = test::run_forked([] {
        g_frames_given = 3;
        g_symbols = three_lines;
        fill_pool();
        (void)atexit([] { (void)printf("%s\n", mem_pop(0) == nullptr ? "empty" : "full"); });
        task_die(SIGTERM);
    });
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.output, kFirstLine + "|backtrace() returned 3 addresses\n"
                                         "|inner%s\n|middle\n|outer\nempty\n");
}

TEST_F(TaskDie, GivesItselfFiveSeconds) {
    const test::Ended ended = test::run_forked([] {
        g_frames_given = 3;
        g_symbols = three_lines;
        (void)atexit([] { (void)printf("%u s\n", g_alarm_seconds); });
        task_die(SIGTERM);
    });
    EXPECT_EQ(ended.status, 0);
    EXPECT_TRUE(ended.output.ends_with("\n5 s\n")) << ended.output;
}

TEST_F(TaskDie, IsNotCutOffByTicks) {
    const test::Ended ended = test::run_forked([] {
        (void)initTimer();
        (void)signal_set();
        g_frames_given = 3;
        g_symbols = [](void *const *frames, int count) {
            const timespec some_ticks{.tv_sec = 0, .tv_nsec = 200'000'000};
            (void)nanosleep(&some_ticks, nullptr);
            return three_lines(frames, count);
        };
        fault();
    });
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(stack_in(ended.output).size(), 3U);
}

// ---------------------------------------------------------------------------------------------
// task_die entered again

const std::string kUpToTheCount = kFirstLine + "|backtrace() returned 3 addresses\n";

TEST_F(TaskDie, EndsAtOnceWhenAnotherSignalComesMeanwhile) {
    const test::Ended ended = test::run_forked([] {
        (void)signal_set();
        g_frames_given = 3;
        g_symbols = [](void *const * /*frames*/, int /*count*/) -> char ** {
            if (kSignalsComeAtOnce) {
                (void)raise(SIGTERM);
            } else {
                task_die(SIGTERM);
            }
            _exit(test::kReturned);
        };
        fault();
    });
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.output, kUpToTheCount);
}

TEST_F(TaskDie, LeavesASecondFaultOfItsThreadToTheKernel) {
    const test::Ended ended = test::run_forked([] {
        (void)signal_set();
        g_frames_given = 3;
        g_symbols = [](void *const * /*frames*/, int /*count*/) -> char ** {
            fault();
            _exit(test::kReturned);
        };
        fault();
    });
    EXPECT_EQ(ended.status, 1000 + SIGSEGV);
    EXPECT_EQ(ended.output, kUpToTheCount);
}

sem_t g_is_inside;

TEST_F(TaskDie, EndsAtOnceWhenAnotherThreadFaultsMeanwhile) {
    const test::Ended ended = test::run_forked([] {
        (void)signal_set();
        (void)sem_init(&g_is_inside, 0, 0);
        g_frames_given = 3;
        g_symbols = [](void *const * /*frames*/, int /*count*/) -> char ** {
            (void)alarm(0); // only the second fault can end this
            (void)sem_post(&g_is_inside);
            pause_for_ever();
        };
        std::thread([] {
            (void)sem_wait(&g_is_inside);
            fault();
        }).detach();
        fault();
    });
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.output, kUpToTheCount);
}

// ---------------------------------------------------------------------------------------------
// task_die when it gets stuck

void crash_while_releasing_the_pool() {
    fill_pool();
    g_at_free = [] {
        g_at_free = nullptr;
        (void)raise(SIGSEGV);
    };
    (void)mem_uinit();
}

// A second thread, for a process of one takes no locks in malloc.
void start_another_thread() {
    std::thread(pause_for_ever).detach();
}

ssize_t crash_at_write(void * /*cookie*/, const char * /*text*/, size_t /*size*/) {
    (void)raise(SIGSEGV);
    _exit(test::kReturned);
}

// malloc_stats writes while it holds malloc's lock.
void crash_inside_malloc() {
    start_another_thread();
    stderr = fopencookie(nullptr, "w", {nullptr, crash_at_write, nullptr, nullptr});
    (void)setvbuf(stderr, nullptr, _IONBF, 0);
    malloc_stats();
}

void crash_while_the_unwinder_waits() {
    g_symbols = [](void *const * /*frames*/, int /*count*/) -> char ** { pause_for_ever(); };
    fault();
}

sem_t g_is_locked;

void crash_while_another_thread_holds_the_output() {
    (void)sem_init(&g_is_locked, 0, 0);
    std::thread([] {
        flockfile(stdout);
        (void)sem_post(&g_is_locked);
        pause_for_ever();
    }).detach();
    (void)sem_wait(&g_is_locked);
    fault();
}

void crash_with_an_exit_that_never_ends() {
    (void)atexit([] { pause_for_ever(); });
    fault();
}

// The tick's signal may be blocked where the crash happens.
void crash_with_all_signals_blocked() {
    sigset_t all;
    (void)sigfillset(&all);
    (void)sigdelset(&all, SIGSEGV);
    (void)pthread_sigmask(SIG_SETMASK, &all, nullptr);
    crash_while_the_unwinder_waits();
}

struct Stuck {
    const char *name;
    void (*crash)();
    bool logs_its_stack;
    bool applies = true;
};

constexpr Stuck kStuck[] = {
    {"pool", crash_while_releasing_the_pool, true, kSignalsComeAtOnce},
    {"malloc", crash_inside_malloc, false, kLocksInMalloc},
    {"unwinder", crash_while_the_unwinder_waits, false},
    {"output", crash_while_another_thread_holds_the_output, false, kSignalsComeAtOnce},
    {"exit", crash_with_an_exit_that_never_ends, true},
    {"blocked", crash_with_all_signals_blocked, false},
};

// All at once, for each takes its time. A host that got stuck for good would be seen as a test that
// does.
TEST_F(TaskDie, EndsInTheEndWhateverItGetsStuckIn) {
    std::vector<std::pair<const Stuck *, test::Forked>> hosts;
    for (const Stuck &stuck : kStuck) {
        if (stuck.applies) {
            hosts.emplace_back(&stuck, [&stuck] {
                (void)initTimer();
                (void)signal_set();
                stuck.crash();
            });
        }
    }
    for (auto &[stuck, host] : hosts) {
        const test::Ended ended = host.wait();
        EXPECT_EQ(ended.status, 1) << stuck->name;
        if (stuck->logs_its_stack) {
            EXPECT_GE(stack_in(ended.output).size(), 3U) << stuck->name;
        } else {
            EXPECT_EQ(test::occurrences(ended.output, "[0x"), 0) << ended.output;
        }
    }
}

} // namespace

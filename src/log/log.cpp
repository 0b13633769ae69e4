#include "log/log.h"

#include "base/errno_keeper.h"
#include "base/relaxed.h"
#include "base/stdout_guard.h"
#include "log/write.h"

#include <atomic>
#include <cassert>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <pthread.h>
#include <string_view>
#include <sys/time.h>
#include <unistd.h>

int log_debug = 0;
int log_d = 0;
int log_num = 0;
int log_lastday = 0;
FILE *log_fp = nullptr;

namespace {

constexpr char kFileNameFormat[] = "/var/log/ruk_log%d.txt";
constexpr size_t kFileNameSize = 256;
constexpr size_t kHeaderSize = 1024;
constexpr size_t kLineSize = kHeaderSize + 1024;
constexpr int kMicrosecondsPerMillisecond = 1000;

// A file that the day change has taken out of use may still be in the hands of another thread's
// call. It waits here until no call is under way.
std::atomic<FILE *> g_retired{nullptr};
std::atomic<int> g_calls_under_way{0};

std::atomic_ref<FILE *> current_file() {
    return std::atomic_ref<FILE *>(log_fp);
}

void close_file(FILE *file) {
    if (file != nullptr) {
        (void)fclose(file); // a log that cannot be written has nowhere to complain
    }
}

class CallUnderWay {
public:
    CallUnderWay() {
        g_calls_under_way.fetch_add(1);
    }
    ~CallUnderWay() {
        if (g_calls_under_way.fetch_sub(1) == 1) {
            close_file(g_retired.exchange(nullptr));
        }
    }
    CallUnderWay(const CallUnderWay &) = delete;
    CallUnderWay &operator=(const CallUnderWay &) = delete;
};

// The C library looks the time zone up under a lock of its own, and a child whose parent was doing
// so in another thread would wait for that lock for ever. So nobody looks it up while the process
// forks.
pthread_mutex_t g_time_zone = PTHREAD_MUTEX_INITIALIZER; // guards nothing of ours; leaf

void stop_look_ups() {
    (void)pthread_mutex_lock(&g_time_zone); // cannot fail on a default mutex
}

void allow_look_ups() {
    (void)pthread_mutex_unlock(&g_time_zone);
}

[[maybe_unused]] const bool g_forks_cleanly =
    pthread_atfork(stop_look_ups, allow_look_ups, allow_look_ups) == 0;

tm local_time(time_t seconds) {
    tm local{};
    stop_look_ups();
    (void)localtime_r(&seconds, &local);
    allow_look_ups();
    return local;
}

// "e" keeps the file out of the shells that the system starts.
FILE *open_current_file() {
    FILE *file = current_file().load(std::memory_order_acquire);
    if (file != nullptr) {
        return file;
    }
    char name[kFileNameSize];
    (void)snprintf(name, sizeof name, kFileNameFormat, load_relaxed(log_num));
    FILE *opened = fopen(name, "w+e");
    if (opened == nullptr) {
        return nullptr;
    }
    if (!current_file().compare_exchange_strong(file, opened, std::memory_order_acq_rel)) {
        close_file(opened); // another thread was faster; both write to its file
        return file;
    }
    return opened;
}

// Keeps two writes together on a stream. The stream is the only thing that is locked meanwhile; a
// cancelled thread gives it back while it unwinds.
class StreamHeld {
public:
    explicit StreamHeld(FILE *stream) : stream_(stream) {
        flockfile(stream_);
    }
    ~StreamHeld() {
        funlockfile(stream_);
    }
    StreamHeld(const StreamHeld &) = delete;
    StreamHeld &operator=(const StreamHeld &) = delete;

private:
    FILE *stream_;
};

// One write for header and message, so that lines of several threads do not mix; a message that
// does not fit goes out in two, which stay together too.
__attribute__((format(printf, 3, 0))) void emit(FILE *out, const char *header, const char *format,
                                                va_list arguments) {
    char line[kLineSize];
    va_list again;
    va_copy(again, arguments);
    const int header_len = snprintf(line, sizeof line, "%s", header);
    const auto used = static_cast<size_t>(header_len);
    const int message_len = vsnprintf(line + used, sizeof line - used, format, arguments);
    if (message_len >= 0 && static_cast<size_t>(message_len) < sizeof line - used) {
        (void)fwrite(line, 1, used + static_cast<size_t>(message_len), out);
    } else {
        const StreamHeld whole_line(out);
        (void)fputs(header, out);
        (void)vfprintf(out, format, again);
    }
    va_end(again);
}

void format_header(char *header, const timeval &now, const tm &local, const char *file,
                   const char *function, int line) {
    (void)snprintf(
        header, kHeaderSize,
        "[%04d/%02d/%02d %02d:%02d:%02d.%03d pid=%d] [ %10s/%30s/%5d ]:: ", local.tm_year + 1900,
        local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
        static_cast<int>(now.tv_usec / kMicrosecondsPerMillisecond), getpid(), file, function,
        line);
}

// The day was stored at the start of this call, so only another thread's call can have changed it:
// the switch happens when two threads log across midnight, never in a process of one thread.
void switch_file_at_day_change(int day) {
    if (load_relaxed(log_lastday) == day) {
        return;
    }
    FILE *file = current_file().exchange(nullptr, std::memory_order_acq_rel);
    if (file != nullptr) {
        store_relaxed(log_num, 1 - load_relaxed(log_num));
        // Only one retired file is remembered. A second switch within one slow call leaves its
        // file open for good: better that than a file closed under its writer.
        FILE *none = nullptr;
        (void)g_retired.compare_exchange_strong(none, file);
    }
}

} // namespace

void log_write(const char *file, const char *function, int line, const char *format, ...) {
    assert(t_stdout_holds == 0 && "a log call by a thread that holds standard output");
    const ErrnoKeeper keep_errno;
    const CallUnderWay under_way;

    timeval now{};
    (void)gettimeofday(&now, nullptr);
    const tm local = local_time(now.tv_sec);
    store_relaxed(log_lastday, local.tm_mday);

    FILE *log_file = open_current_file();
    char header[kHeaderSize];
    format_header(header, now, local, file, function, line);

    va_list arguments;
    if (log_file != nullptr && load_relaxed(log_d) != 0) {
        va_start(arguments, format);
        emit(log_file, header, format, arguments);
        va_end(arguments);
    }
    if (load_relaxed(log_debug) != 0) {
        va_start(arguments, format);
        emit(stdout, header, format, arguments);
        va_end(arguments);
        if (!std::string_view(format).ends_with('\n')) {
            (void)fflush(stdout); // where lines are flushed it would wait for the next one
        }
    }
    (void)fflush(
        log_file); // without a log file this flushes every open stream, standard output too
    switch_file_at_day_change(local.tm_mday);
}

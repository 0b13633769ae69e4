#include "loop.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>

#include <array>
#include <memory>

#include "fd.h"
#include "link.h"
#include "outbox.h"
#include "trace.h"

namespace card {

namespace {

constexpr size_t kReceiveSize = 16384; // more than any frame of the links in use
constexpr int kFramesPerTurn = 64;     // so that a flood on one link does not starve the rest
constexpr uint64_t kSignalKey = kMaxInterfaces;
constexpr uint64_t kTimerKey = kMaxInterfaces + 1;
constexpr uint64_t kUsPerSecond = 1000 * 1000;
constexpr uint64_t kNsPerUs = 1000;

struct CloseFile {
    void operator()(FILE *file) const {
        (void)std::fclose(file); // a trace that could not be written in full is no reason to fail
    }
};

struct Session {
    explicit Session(const Options &given, SendFrame send)
        : options(given), outbox(std::move(send)) {
    }
    const Options &options;
    Card card;
    std::vector<Link> links;
    Outbox outbox;
    Fd epoll;
    Fd signals;
    Fd timer;
    std::unique_ptr<FILE, CloseFile> trace_file;
    FILE *trace = nullptr; // null: no trace
    uint64_t start_us = 0;
    uint64_t armed_us = 0; // what the timer is set to; 0: not set
    bool ended = false;
    std::string failure;
    Outcome outcome;
    std::array<uint8_t, kReceiveSize> received;
};

uint64_t clock_us() {
    timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now); // cannot fail for this clock
    return static_cast<uint64_t>(now.tv_sec) * kUsPerSecond +
           static_cast<uint64_t>(now.tv_nsec) / kNsPerUs;
}

std::string failed(const char *action, const std::string &object = "") {
    return std::string("card: ") + action + (object.empty() ? "" : " '" + object + "'") + ": " +
           std::strerror(errno);
}

void print_line(FILE *file, const std::string &line) {
    (void)std::fputs((line + "\n").c_str(), file); // the trace must not stop the card
    (void)std::fflush(file);
}

// ---- counters ----

std::string write_text(FILE *file, const std::string &text, const std::string &path) {
    if (std::fputs(text.c_str(), file) < 0 || std::fflush(file) != 0) {
        return failed("write counters to", path);
    }
    return "";
}

// Beside the file first and then over it, so that a reader never sees half an object.
std::string write_counters_file(const std::string &path, const std::string &text) {
    const std::string beside = path + ".tmp";
    const std::unique_ptr<FILE, CloseFile> file(std::fopen(beside.c_str(), "we"));
    if (file == nullptr) {
        return failed("create counters file", beside);
    }
    std::string error = write_text(file.get(), text, beside);
    if (error.empty() && std::rename(beside.c_str(), path.c_str()) != 0) {
        error = failed("rename counters file", beside);
    }
    return error;
}

std::string report_counters(Session &session) {
    Counters &counters = session.card.counters;
    for (const Link &link : session.links) {
        counters.kernel_drops += link_take_kernel_drops(link);
    }
    counters.faults[static_cast<size_t>(Fault::kReorder)] = session.outbox.held_count;
    counters.overtaken_replies = session.outbox.overtaken_count;
    const std::string text = counters_json(counters) + "\n";
    const std::string &path = session.options.counters_path;
    return path.empty() ? write_text(stdout, text, "standard output")
                        : write_counters_file(path, text);
}

// ---- frames ----

void count_sent(Counters &counters, ReplyKind kind) {
    counters.replies += kind != ReplyKind::kNoise ? 1U : 0U;
    counters.read_replies += kind == ReplyKind::kReadData ? 1U : 0U;
    counters.acknowledgements += kind == ReplyKind::kAcknowledgement ? 1U : 0U;
    counters.noise_frames += kind == ReplyKind::kNoise ? 1U : 0U;
}

void send_reply(Session &session, size_t index, const Reply &reply) {
    const Link &link = session.links[index];
    Counters &counters = session.card.counters;
    int error = 0;
    if (reply.copies > 0) {
        if (link_send(link, reply.frame())) {
            count_sent(counters, reply.kind);
        } else {
            error = errno;
            counters.send_errors++;
        }
    }
    if (session.trace != nullptr) {
        print_line(session.trace,
                   trace_sent(link.name, clock_us() - session.start_us, reply) +
                       (error == 0 ? "" : std::string(" -> failed: ") + std::strerror(error)));
    }
}

void receive_frame(Session &session, size_t index, size_t size) {
    const Arrival arrival{Bytes(session.received).first(size), index,
                          clock_us() - session.start_us};
    Outcome &outcome = session.outcome;
    card_receive(session.card, arrival, outcome);
    if (session.trace != nullptr) {
        print_line(session.trace, trace_received(session.links[index].name, arrival, outcome));
    }
    for (size_t i = 0; i < outcome.count; i++) {
        outbox_put(session.outbox, index, outcome.replies[i], arrival.now_us);
    }
}

void serve_link(Session &session, size_t index) {
    const Link &link = session.links[index];
    for (int i = 0; i < kFramesPerTurn; i++) {
        size_t size = 0;
        switch (link_receive(link, session.received, size)) {
        case Received::kFrame:
            receive_frame(session, index, size);
            break;
        case Received::kOutgoing:
            break;
        case Received::kNothing:
            return;
        case Received::kError:
            session.card.counters.receive_errors++;
            (void)std::fprintf(stderr, "link: receive on '%s': %s, waiting\n", link.name.c_str(),
                               std::strerror(errno));
            return;
        }
    }
}

// ---- times and signals ----

// Keep the timer at the next waiting reply. Costs nothing while no reply is late.
void arm_timer(Session &session) {
    const uint64_t due_us = outbox_next_due(session.outbox).value_or(0);
    if (due_us == session.armed_us) {
        return;
    }
    session.armed_us = due_us;
    itimerspec setting = {};
    if (due_us != 0) {
        const uint64_t at_us = session.start_us + due_us;
        setting.it_value.tv_sec = static_cast<time_t>(at_us / kUsPerSecond);
        setting.it_value.tv_nsec = static_cast<long>(at_us % kUsPerSecond * kNsPerUs);
    }
    if (timerfd_settime(session.timer.get(), TFD_TIMER_ABSTIME, &setting, nullptr) != 0) {
        session.failure = failed("set timer");
    }
}

void serve_timer(Session &session) {
    uint64_t expirations = 0;
    (void)read(session.timer.get(), &expirations, sizeof expirations); // only to clear it
    session.armed_us = 0;
    outbox_send_due(session.outbox, clock_us() - session.start_us);
}

void serve_signals(Session &session) {
    signalfd_siginfo info = {};
    while (read(session.signals.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        if (info.ssi_signo == SIGUSR1) {
            session.failure = report_counters(session);
        } else {
            session.ended = true;
        }
    }
}

void serve(Session &session, uint64_t key) {
    if (key == kSignalKey) {
        serve_signals(session);
    } else if (key == kTimerKey) {
        serve_timer(session);
    } else {
        serve_link(session, static_cast<size_t>(key));
    }
    arm_timer(session);
}

// ---- start and end ----

// Signals are taken from a descriptor, so that they never interrupt a frame half done.
bool open_signals(Session &session) {
    sigset_t set = {};
    (void)sigemptyset(&set); // these cannot fail for valid signal numbers
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGUSR1}) {
        (void)sigaddset(&set, number);
    }
    (void)std::signal(SIGPIPE, SIG_IGN); // a reader of the trace may go away
    session.signals = Fd(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    return sigprocmask(SIG_BLOCK, &set, nullptr) == 0 && session.signals.valid();
}

bool watch(const Session &session, int fd, uint64_t key) {
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = key;
    return epoll_ctl(session.epoll.get(), EPOLL_CTL_ADD, fd, &event) == 0;
}

std::string open_waiting(Session &session) {
    session.epoll = Fd(epoll_create1(EPOLL_CLOEXEC));
    session.timer = Fd(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    if (!session.epoll.valid() || !session.timer.valid() || !open_signals(session) ||
        !watch(session, session.signals.get(), kSignalKey) ||
        !watch(session, session.timer.get(), kTimerKey)) {
        return failed("prepare to wait");
    }
    return "";
}

std::string open_links(Session &session) {
    for (const std::string &name : session.options.interfaces) {
        Link &link = session.links.emplace_back();
        std::string error = link_open(name, link);
        if (!error.empty()) {
            return error;
        }
        if (!watch(session, link.socket.get(), session.links.size() - 1)) {
            return failed("wait for frames on", name);
        }
        if (!link_is_up(link)) {
            (void)std::fprintf(stderr, "link: interface '%s': is down, waiting\n", name.c_str());
        }
    }
    return "";
}

std::string open_trace(Session &session) {
    const std::string &path = session.options.trace_path;
    if (!session.options.trace) {
        return "";
    }
    session.trace = stdout;
    if (!path.empty()) {
        session.trace_file.reset(std::fopen(path.c_str(), "we"));
        session.trace = session.trace_file.get();
    }
    return session.trace == nullptr ? failed("create trace file", path) : "";
}

std::string open_all(Session &session) {
    session.card.identity = session.options.identity;
    session.card.faults = make_fault_engine(session.options.faults);
    session.start_us = clock_us();
    for (const LoadOrder &order : session.options.loads) {
        std::string error = memory_load(session.card.memory, order);
        if (!error.empty()) {
            return error;
        }
    }
    for (const auto step : {open_trace, open_waiting, open_links}) {
        std::string error = step(session);
        if (!error.empty()) {
            return error;
        }
    }
    return "";
}

void say_ready(const Session &session) {
    std::string line = "ready";
    for (const Link &link : session.links) {
        line += " " + link.name;
    }
    print_line(stdout, line);
}

void wait_and_serve(Session &session) {
    std::array<epoll_event, kMaxInterfaces + 2> events{};
    while (!session.ended && session.failure.empty()) {
        const int count =
            epoll_wait(session.epoll.get(), events.data(), static_cast<int>(events.size()), -1);
        if (count < 0 && errno != EINTR) {
            session.failure = failed("wait");
        }
        for (int i = 0; i < count; i++) {
            serve(session, events[static_cast<size_t>(i)].data.u64);
        }
    }
}

// Everything is tried, whatever fails; the first failure is the one reported.
std::string close_all(Session &session) {
    std::string failure = session.failure;
    for (const SaveOrder &order : session.options.saves) {
        const std::string error = memory_save(session.card.memory, order);
        failure = failure.empty() ? error : failure;
    }
    const std::string error = report_counters(session);
    return failure.empty() ? error : failure;
}

} // namespace

std::string run_card(const Options &options) {
    // On the heap: the record holds whole frames. The outbox sends through the session it is in.
    std::unique_ptr<Session> session;
    session = std::make_unique<Session>(options, [&session](size_t link, const Reply &reply) {
        send_reply(*session, link, reply);
    });
    std::string error = open_all(*session);
    if (!error.empty()) {
        return error;
    }
    say_ready(*session);
    wait_and_serve(*session);
    return close_all(*session);
}

} // namespace card

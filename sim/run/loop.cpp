#include "run/loop.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <list>
#include <memory>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>

#include <array>
#include <utility>

#include "firmware/firmware_file.h"
#include "registers/memory_file.h"
#include "run/receiver.h"
#include "run/report.h"
#include "run/station.h"

namespace card {

namespace {

struct Session {
    explicit Session(const Options &given) : options(given) {
    }
    const Options &options;
    Station station;
    Fd signals;
    uint32_t next_picture = 1;  // number of the next file
    uint32_t next_firmware = 1; // likewise
    bool ended = false;
    std::string failure;
    std::list<Receiver> receivers; // last: they stop before the rest goes
};

std::string failed_to(const char *action, const std::string &object = "") {
    return std::string("card: ") + action + (object.empty() ? "" : " '" + object + "'") + ": " +
           std::strerror(errno);
}

void keep_first(std::string &failure, const std::string &next) {
    if (failure.empty()) {
        failure = next;
    }
}

// ---- start ----

std::string load_memory(Session &session) {
    for (const LoadOrder &order : session.options.loads) {
        std::string error = memory_load(session.station.card.memory, order);
        if (!error.empty()) {
            return error;
        }
    }
    return "";
}

std::string open_trace(Session &session) {
    Station &station = session.station;
    const std::string &path = session.options.trace_path;
    if (!session.options.trace) {
        return "";
    }
    station.trace = stdout;
    if (!path.empty()) {
        station.trace_file.reset(std::fopen(path.c_str(), "we"));
        station.trace = station.trace_file.get();
    }
    return station.trace == nullptr ? failed_to("create trace file", path) : "";
}

// Signals are taken from a descriptor by the main thread. Blocked before the first thread starts,
// because threads inherit the mask.
std::string open_signals(Session &session) {
    sigset_t set = {};
    (void)sigemptyset(&set); // these cannot fail for valid signal numbers
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGUSR1}) {
        (void)sigaddset(&set, number);
    }
    (void)std::signal(SIGPIPE, SIG_IGN); // a reader of the trace may go away
    session.signals = Fd(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    const bool done = session.signals.valid() && sigprocmask(SIG_BLOCK, &set, nullptr) == 0 &&
                      prepare_receivers();
    return done ? "" : failed_to("prepare signals");
}

std::string open_events(Session &session) {
    session.station.timer = Fd(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    session.station.failed = Fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    session.station.news = Fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    const bool done = session.station.timer.valid() && session.station.failed.valid() &&
                      session.station.news.valid();
    return done ? "" : failed_to("prepare timers");
}

std::string open_links(Session &session) {
    for (const std::string &name : session.options.interfaces) {
        Link &link = session.station.links.emplace_back();
        std::string error = link_open(name, link);
        if (!error.empty()) {
            return error;
        }
        if (!link_is_up(link)) {
            (void)std::fprintf(stderr, "link: interface '%s': is down, waiting\n", name.c_str());
        }
    }
    return "";
}

std::string start(Session &session) {
    session.station.card.identity = session.options.identity;
    session.station.card.picture.port.keep_pixels = !session.options.picture_directory.empty();
    session.station.card.firmware.keep_images = !session.options.firmware_directory.empty();
    session.station.card.firmware.refusals = session.options.firmware_refusals;
    session.station.card.faults = make_fault_engine(session.options.faults);
    for (const auto step : {load_memory, open_trace, open_signals, open_events, open_links}) {
        std::string error = step(session);
        if (!error.empty()) {
            return error;
        }
    }
    // The sockets listen already: a frame that comes before its thread waits in the kernel.
    std::string ready = "ready";
    for (const Link &link : session.station.links) {
        ready += " " + link.name;
    }
    if (std::puts(ready.c_str()) < 0 || std::fflush(stdout) != 0) {
        return failed_to("write to standard output");
    }
    for (size_t i = 0; i < session.station.links.size(); i++) {
        session.receivers.emplace_back(session.station, i);
    }
    return "";
}

// ---- run ----

void serve_signals(Session &session) {
    signalfd_siginfo info = {};
    while (read(session.signals.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        if (info.ssi_signo == SIGUSR1) {
            keep_first(session.failure, report_counters(station_counters(session.station),
                                                        session.options.counters_path));
        } else {
            session.ended = true;
        }
    }
}

void serve_timer(Session &session) {
    uint64_t expirations = 0;
    (void)read(session.station.timer.get(), &expirations, sizeof expirations); // only to clear it
    station_send_late(session.station);
}

void serve_failures(Session &session) {
    keep_first(session.failure, station_failure(session.station));
}

void print_line(const std::string &line) {
    (void)std::fputs((line + "\n").c_str(), stdout); // when it is lost, the counters tell the same
    (void)std::fflush(stdout);
}

// Where a kind of file is counted.
struct SaveCounters {
    uint64_t Counters::*saved;
    uint64_t Counters::*failed;
};
constexpr SaveCounters kPictureSaves = {&Counters::pictures_saved, &Counters::picture_save_errors};
constexpr SaveCounters kFirmwareSaves = {&Counters::firmware_saved,
                                         &Counters::firmware_save_errors};

// How the line of a saved file ends. One that cannot be saved does not stop the card.
std::string saved_text(Session &session, const SaveCounters &counters, const std::string &error,
                       const std::string &path) {
    station_count(session.station, error.empty() ? counters.saved : counters.failed);
    if (!error.empty()) {
        (void)std::fprintf(stderr, "%s\n", error.c_str());
        return ", not saved";
    }
    return ", saved as " + path;
}

void report_picture(Session &session, PortPicture picture) {
    std::string line = port_text(picture);
    if (!session.options.picture_directory.empty()) {
        std::string path;
        const std::string error = save_port_picture(
            std::move(picture), session.options.picture_directory, session.next_picture, path);
        line += saved_text(session, kPictureSaves, error, path);
    }
    print_line(line);
}

void report_firmware(Session &session, const FirmwareReport &report) {
    const std::string &directory = session.options.firmware_directory;
    std::string line = report.line;
    if (report.complete && !directory.empty()) {
        std::string path;
        const std::string error =
            save_firmware(report.image, directory, session.next_firmware, path);
        line += saved_text(session, kFirmwareSaves, error, path);
    }
    print_line(line);
}

void serve_news(Session &session) {
    uint64_t count = 0;
    (void)read(session.station.news.get(), &count, sizeof count); // only to clear it
    for (const FirmwareReport &report : station_take_firmware(session.station)) {
        report_firmware(session, report);
    }
    for (PortPicture &picture : station_take_pictures(session.station)) {
        report_picture(session, std::move(picture));
    }
}

void wait_and_serve(Session &session) {
    std::array<pollfd, 4> waits = {{{session.signals.get(), POLLIN, 0},
                                    {session.station.timer.get(), POLLIN, 0},
                                    {session.station.failed.get(), POLLIN, 0},
                                    {session.station.news.get(), POLLIN, 0}}};
    constexpr std::array kServe = {serve_signals, serve_timer, serve_failures, serve_news};
    while (!session.ended && session.failure.empty()) {
        if (poll(waits.data(), waits.size(), -1) < 0 && errno != EINTR) {
            session.failure = failed_to("wait");
            return;
        }
        for (size_t i = 0; i < waits.size(); i++) {
            if (waits[i].revents != 0) {
                kServe[i](session);
            }
        }
    }
}

// ---- end ----

void save_ddr2_pictures(Session &session) {
    for (const Ddr2PictureOrder &order : session.options.ddr2_pictures) {
        std::string path;
        const std::string error =
            save_ddr2_picture(session.station.card.picture.ddr2[order.memory].memory, order,
                              session.options.picture_directory, path);
        print_line("ddr2 " + std::to_string(order.memory) + ": " + std::to_string(order.width) +
                   " x " + std::to_string(order.height) +
                   saved_text(session, kPictureSaves, error, path));
    }
}

// Everything is tried, whatever fails; the first failure is the one reported.
std::string finish(Session &session) {
    session.receivers.clear();
    firmware_end(session.station.card.firmware, session.station.card.counters);
    serve_news(session);
    save_ddr2_pictures(session);
    std::string failure = session.failure;
    for (const SaveOrder &order : session.options.saves) {
        keep_first(failure, memory_save(session.station.card.memory, order));
    }
    keep_first(failure,
               report_counters(station_counters(session.station), session.options.counters_path));
    return failure;
}

} // namespace

std::string run_card(const Options &options) {
    const auto session = std::make_unique<Session>(options); // large
    std::string error = start(*session);
    if (!error.empty()) {
        return error;
    }
    wait_and_serve(*session);
    return finish(*session);
}

} // namespace card

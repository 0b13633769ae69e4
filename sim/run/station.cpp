#include "run/station.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <sys/timerfd.h>
#include <unistd.h>
#include <utility>

#include "run/protocols.h"
#include "run/trace.h"

namespace card {

namespace {

constexpr uint64_t kUsPerSecond = 1'000'000;
constexpr uint64_t kNsPerUs = 1000;

uint64_t clock_us() {
    timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now); // cannot fail for this clock
    return static_cast<uint64_t>(now.tv_sec) * kUsPerSecond +
           static_cast<uint64_t>(now.tv_nsec) / kNsPerUs;
}

void print_line_locked(FILE *file, const std::string &line) {
    (void)std::fputs((line + "\n").c_str(), file); // a lost trace must not stop the card
    (void)std::fflush(file);
}

// Make an eventfd readable.
void raise(const Fd &event) {
    const uint64_t one = 1;
    (void)write(event.get(), &one, sizeof one); // cannot block before 2^64 calls
}

void count_sent_locked(Counters &counters, ReplyKind kind) {
    if (kind == ReplyKind::kNoise) {
        counters.noise_frames++;
        return;
    }
    counters.replies++;
    counters.read_replies += kind == ReplyKind::kReadData ? 1U : 0U;
    counters.acknowledgements += kind == ReplyKind::kAcknowledgement ? 1U : 0U;
}

void send_locked(Station &station, size_t index, const Reply &reply) {
    const Link &link = station.links[index];
    int error = 0;
    if (reply.copies > 0) {
        if (link_send(link, reply.frame())) {
            count_sent_locked(station.card.counters, reply.kind);
        } else {
            error = errno;
            station.card.counters.send_errors++;
        }
    }
    if (station.trace != nullptr) {
        print_line_locked(station.trace,
                          trace_sent(link.name, station_now_us(station), reply) +
                              (error == 0 ? "" : std::string(" -> ") + std::strerror(error)));
    }
}

// Keep the timer at the next late reply. Costs no call while no reply is late.
void arm_timer_locked(Station &station) {
    const uint64_t due_us = outbox_next_due(station.outbox).value_or(0);
    if (due_us == station.armed_us) {
        return;
    }
    station.armed_us = due_us;
    itimerspec setting = {};
    if (due_us != 0) {
        const uint64_t at_us = station.start_us + due_us;
        setting.it_value.tv_sec = static_cast<time_t>(at_us / kUsPerSecond);
        setting.it_value.tv_nsec = static_cast<long>(at_us % kUsPerSecond * kNsPerUs);
    }
    // Cannot fail: the descriptor is a timer's and the time is in range.
    (void)timerfd_settime(station.timer.get(), TFD_TIMER_ABSTIME, &setting, nullptr);
}

} // namespace

Station::Station()
    : outbox([this](size_t link, const Reply &reply) { send_locked(*this, link, reply); }),
      start_us(clock_us()) {
}

uint64_t station_now_us(const Station &station) {
    return clock_us() - station.start_us;
}

void station_receive(Station &station, size_t link, Bytes frame, Outcome &outcome) {
    const std::lock_guard guard(station.lock);
    const Arrival arrival{frame, link, station_now_us(station)};
    card_receive(station.card, arrival, outcome);
    if (station.trace != nullptr) {
        print_line_locked(station.trace,
                          trace_received(station.links[link].name, arrival, outcome));
    }
    for (size_t i = 0; i < outcome.count; i++) {
        outbox_put(station.outbox, link, outcome.replies[i], arrival.now_us);
    }
    arm_timer_locked(station);
    if (!station.card.picture.port.finished.empty() || !station.card.firmware.reports.empty()) {
        raise(station.news);
    }
}

void station_receive_failed(Station &station) {
    const std::lock_guard guard(station.lock);
    station.card.counters.receive_errors++;
}

void station_send_late(Station &station) {
    const std::lock_guard guard(station.lock);
    station.armed_us = 0; // it has gone off
    outbox_send_due(station.outbox, station_now_us(station));
    arm_timer_locked(station);
}

void station_fail(Station &station, const std::string &reason) {
    const std::lock_guard guard(station.lock);
    station.failure = reason;
    raise(station.failed);
}

std::string station_failure(Station &station) {
    const std::lock_guard guard(station.lock);
    return station.failure;
}

std::vector<PortPicture> station_take_pictures(Station &station) {
    const std::lock_guard guard(station.lock);
    return std::exchange(station.card.picture.port.finished, {});
}

std::vector<FirmwareReport> station_take_firmware(Station &station) {
    const std::lock_guard guard(station.lock);
    return std::exchange(station.card.firmware.reports, {});
}

void station_count(Station &station, uint64_t Counters::*counter) {
    const std::lock_guard guard(station.lock);
    station.card.counters.*counter += 1;
}

Counters station_counters(Station &station) {
    const std::lock_guard guard(station.lock);
    Counters &counters = station.card.counters;
    for (const Link &link : station.links) {
        counters.kernel_drops += link_take_kernel_drops(link);
    }
    counters.faults[static_cast<size_t>(Fault::kReorder)] = station.outbox.held_count;
    counters.overtaken_replies = station.outbox.overtaken_count;
    return counters;
}

} // namespace card

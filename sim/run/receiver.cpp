#include "run/receiver.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <pthread.h>

namespace card {

namespace {

constexpr int kWakeSignal = SIGUSR2;
constexpr size_t kReceiveSize = 16384; // more than any frame of the links in use
// After a failed receive (interface down), so that a lasting failure does not spin.
constexpr std::chrono::milliseconds kErrorPause{100};

struct Buffers {
    std::array<uint8_t, kReceiveSize> frame;
    Outcome outcome;
};

void do_nothing(int) {
}

} // namespace

bool prepare_receivers() {
    struct sigaction action = {};
    action.sa_handler = do_nothing; // without SA_RESTART: a blocked receive ends with EINTR
    return sigaction(kWakeSignal, &action, nullptr) == 0;
}

Receiver::Receiver(Station &station, size_t link)
    : station_(station), link_(link), thread_([this] { run(); }) {
}

Receiver::~Receiver() {
    stopping_ = true;
    // The short time-out first: should the signal come just before the thread enters the receive
    // call, that call ends by itself.
    link_stop_waiting(station_.links[link_]);
    (void)pthread_kill(thread_.native_handle(), kWakeSignal); // a thread not yet joined exists
    thread_.join();
}

void Receiver::run() {
    try {
        receive_frames();
    } catch (const std::exception &error) { // memory is the only thing that can run out
        station_fail(station_, "card: serve '" + station_.links[link_].name + "': " + error.what());
    }
}

void Receiver::receive_frames() {
    const auto buffers = std::make_unique<Buffers>();
    const Link &link = station_.links[link_];
    while (!stopping_) {
        size_t size = 0;
        switch (link_receive(link, buffers->frame, size)) {
        case Received::kFrame:
            station_receive(station_, link_, Bytes(buffers->frame).first(size), buffers->outcome);
            break;
        case Received::kOutgoing:
        case Received::kNothing:
            break;
        case Received::kError:
            (void)std::fprintf(stderr, "link: receive on '%s': %s, waiting\n", link.name.c_str(),
                               std::strerror(errno));
            station_receive_failed(station_);
            std::this_thread::sleep_for(kErrorPause);
            break;
        }
    }
}

} // namespace card

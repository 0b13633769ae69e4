// receiver.h - the thread that receives on one link.
//
// It blocks in the receive call itself: asking first whether a frame is there would cost one more
// call between a request and its answer.
#ifndef CARD_RECEIVER_H
#define CARD_RECEIVER_H

#include <atomic>
#include <cstddef>
#include <thread>

#include "run/station.h"

namespace card {

class Receiver {
public:
    /** Start receiving on a link of the station. Throws std::system_error without a thread. */
    Receiver(Station &station, size_t link);

    /** Stops the thread, also while it waits for a frame. */
    ~Receiver();

    Receiver(const Receiver &) = delete;
    Receiver &operator=(const Receiver &) = delete;

private:
    void run();
    void receive_frames();

    Station &station_;
    size_t link_;
    std::atomic<bool> stopping_{false};
    std::thread thread_; // last: it uses the others
};

/** Needed once before the first receiver: its way of waking a thread. False with errno set. */
bool prepare_receivers();

} // namespace card

#endif

// station.h - the card at its links: receives, answers, sends and traces.
//
// Threads: one receive thread per link (receiver.h), and the main thread for late replies and
// signals. Each of them holds the one lock while it works on the card, sends or traces, so that
// the trace shows the true order.
#ifndef CARD_STATION_H
#define CARD_STATION_H

#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "card/card.h"
#include "faults/outbox.h"
#include "fd.h"
#include "file.h"
#include "wire/link.h"

namespace card {

struct Station {
    Station();
    Station(const Station &) = delete; // the outbox sends through the station that it lies in
    Station &operator=(const Station &) = delete;

    std::vector<Link> links; // fixed before the threads start

    std::mutex lock; // guards all that follows; nothing else is locked under it
    Card card;
    Outbox outbox;
    File trace_file;
    FILE *trace = nullptr; // null: no trace
    Fd timer;              // goes off when the next late reply is due
    uint64_t armed_us = 0; // what it is set to; 0: not set
    uint64_t start_us = 0; // all times are counted from here
    Fd failed;             // an eventfd, readable when a thread cannot go on
    std::string failure;   // why
    Fd news;               // an eventfd, readable when a picture or firmware is to be reported
};

/** Microseconds since the start. */
uint64_t station_now_us(const Station &station);

/** Answer one received frame; `outcome` is the caller's to reuse. Takes the lock. */
void station_receive(Station &station, size_t link, Bytes frame, Outcome &outcome);

/** Count a failed receive. Takes the lock. */
void station_receive_failed(Station &station);

/** Send what is due and set the timer anew. Takes the lock. */
void station_send_late(Station &station);

/** Tell the main thread that a receive thread cannot go on. Takes the lock. */
void station_fail(Station &station, const std::string &reason);

/** Why a thread could not go on; empty while all can. Takes the lock. */
std::string station_failure(Station &station);

/** Take away the pictures that the picture port has finished. Takes the lock. */
std::vector<PortPicture> station_take_pictures(Station &station);

/** Take away what the firmware side has to tell. Takes the lock. */
std::vector<FirmwareReport> station_take_firmware(Station &station);

/** Count something that happened outside of the card. Takes the lock. */
void station_count(Station &station, uint64_t Counters::*counter);

/** The counters as they are now. Takes the lock. */
Counters station_counters(Station &station);

} // namespace card

#endif

// outbox.h - when the frames leave: at once, late, twice, or behind the next reply.
//
// Knows the time only as it is told, and sends only through the function it is given.
#ifndef CARD_OUTBOX_H
#define CARD_OUTBOX_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <utility>

#include "faults/exchange.h"

namespace card {

// A reply that waits to be overtaken goes alone after this time: nobody may come, and the board
// sends its request again after 60 ms at the earliest.
constexpr uint64_t kHoldUs = 20'000;

/** Sends one frame; called once per copy, and once with copies 0 for a reply that is lost. */
using SendFrame = std::function<void(size_t link, const Reply &reply)>;

/** When a reply leaves, and its number: of two with the same time the older one goes first. */
using Departure = std::pair<uint64_t, uint64_t>;

struct WaitingReply {
    size_t link = 0;
    Reply reply;
};

struct Outbox {
    explicit Outbox(SendFrame send_frame) : send(std::move(send_frame)) {
    }
    SendFrame send;
    std::map<Departure, WaitingReply> waiting;
    std::map<size_t, Departure> held; // per link, the waiting reply that is to be overtaken
    uint64_t next_order = 0;
    uint64_t held_count = 0;      // replies held back so far
    uint64_t overtaken_count = 0; // of these: those that another one overtook
};

/** Send the reply, or keep it until its time. */
void outbox_put(Outbox &outbox, size_t link, Reply &reply, uint64_t now_us);

/** Send all replies whose time has come. */
void outbox_send_due(Outbox &outbox, uint64_t now_us);

/** When the next reply has to leave; nothing when none waits. */
std::optional<uint64_t> outbox_next_due(const Outbox &outbox);

} // namespace card

#endif

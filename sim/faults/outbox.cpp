#include "faults/outbox.h"

#include <algorithm>

namespace card {

namespace {

void send_copies(Outbox &outbox, size_t link, const Reply &reply) {
    const unsigned calls = std::max(reply.copies, 1U); // a lost reply is reported once
    for (unsigned i = 0; i < calls; i++) {
        outbox.send(link, reply);
    }
}

// Only a reply that is on the wire can overtake.
void release_held(Outbox &outbox, size_t link, const Reply &overtaking) {
    const auto held = outbox.held.find(link);
    if (held == outbox.held.end() || overtaking.kind == ReplyKind::kNoise ||
        overtaking.copies == 0) {
        return;
    }
    const auto released = outbox.waiting.extract(held->second);
    outbox.held.erase(held);
    outbox.overtaken_count++;
    send_copies(outbox, link, released.mapped().reply);
}

void send_now(Outbox &outbox, size_t link, const Reply &reply) {
    send_copies(outbox, link, reply);
    release_held(outbox, link, reply);
}

Departure keep(Outbox &outbox, size_t link, const Reply &reply, uint64_t due_us) {
    const Departure departure{due_us, outbox.next_order++};
    outbox.waiting.emplace(departure, WaitingReply{link, reply});
    return departure;
}

bool is_held_back(const Outbox &outbox, size_t link, const Reply &reply) {
    // One at a time per link: a second one would hold back the very reply that is to overtake.
    return reply.behind_next && reply.copies > 0 && !outbox.held.contains(link);
}

} // namespace

void outbox_put(Outbox &outbox, size_t link, Reply &reply, uint64_t now_us) {
    if (is_held_back(outbox, link, reply)) {
        outbox.held_count++;
        reply.faults.add(Fault::kReorder);
        outbox.held[link] = keep(outbox, link, reply, now_us + reply.delay_us + kHoldUs);
    } else if (reply.delay_us > 0 && reply.copies > 0) {
        (void)keep(outbox, link, reply, now_us + reply.delay_us); // leaves when its time has come
    } else {
        send_now(outbox, link, reply);
    }
}

void outbox_send_due(Outbox &outbox, uint64_t now_us) {
    while (!outbox.waiting.empty() && outbox.waiting.begin()->first.first <= now_us) {
        const auto leaving = outbox.waiting.extract(outbox.waiting.begin());
        const size_t link = leaving.mapped().link;
        const auto held = outbox.held.find(link);
        if (held != outbox.held.end() && held->second == leaving.key()) {
            outbox.held.erase(held);
        }
        send_now(outbox, link, leaving.mapped().reply);
    }
}

std::optional<uint64_t> outbox_next_due(const Outbox &outbox) {
    if (outbox.waiting.empty()) {
        return std::nullopt;
    }
    return outbox.waiting.begin()->first.first;
}

} // namespace card

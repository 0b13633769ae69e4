#include "run/protocols.h"

#include <array>

#include "bus_block/bus_block.h"
#include "card/raw_message.h"

namespace card {

namespace {

constexpr std::array kProtocols = {&kRawMessageProtocol, &kBusBlockProtocol};

} // namespace

void card_receive(Card &card, const Arrival &arrival, Outcome &out) {
    card.counters.frames++;
    out.protocol = nullptr;
    out.disposition = Disposition::kOtherProtocol;
    out.resend = false;
    out.faults = {};
    out.remark.clear();
    out.count = 0;
    for (const Protocol *protocol : kProtocols) {
        if (protocol->claims(arrival.frame)) {
            out.protocol = protocol;
            protocol->handle(card, arrival, out);
            return;
        }
    }
    card.counters.ignored_frames++;
    card.counters.ignored_other_protocol++;
}

} // namespace card

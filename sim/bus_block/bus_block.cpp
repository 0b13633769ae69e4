#include "bus_block/bus_block.h"

#include "bus_block/bus_block_text.h"
#include "bus_block/bus_block_wire.h"
#include "card/card.h"
#include "faults/link_faults.h"

namespace card {

namespace {

static_assert(bus::kMaxFrame <= kLargestReply);

struct BadRow {
    bus::Decoded decoded;
    Disposition disposition;
    uint64_t Counters::*reason;
};

constexpr BadRow kBadRows[] = {
    {bus::Decoded::kBadType, Disposition::kBadCode, &Counters::bad_code},
    {bus::Decoded::kBadLength, Disposition::kBadLength, &Counters::bad_length},
    {bus::Decoded::kBadChecksum, Disposition::kBadChecksum, &Counters::bad_checksum},
};

void reject(Card &card, bus::Decoded decoded, Outcome &out) {
    for (const BadRow &row : kBadRows) {
        if (row.decoded == decoded) {
            out.disposition = row.disposition;
            card.counters.bad_frames++;
            card.counters.*row.reason += 1;
        }
    }
}

void count_request(Counters &counters, uint8_t type) {
    counters.requests++;
    counters.reads += type == bus::kTypeRead ? 1U : 0U;
    counters.writes += type == bus::kTypeWrite ? 1U : 0U;
    counters.plain_writes += type == bus::kTypeWrite ? 1U : 0U;
}

// A refusal: a response whose flag, the only byte that it carries, is the status.
void build_refusal(const bus::Request &request, uint8_t status, Reply &reply) {
    reply.bytes[bus::kData] = status;
    reply.size = bus::encode_reply(bus::kTypeResponse, request.addr, 1, 1, reply.bytes);
}

void build_data(Card &card, const bus::Request &request, Reply &reply) {
    uint32_t told = request.len;
    size_t carried = request.len;
    const AddressRule *rule = apply_rule(card.faults, Fault::kLieLength, request.addr);
    if (rule != nullptr) {
        reply.faults.add(Fault::kLieLength);
        told = rule->lie.relative ? request.len + rule->lie.amount : rule->lie.amount;
        // More than a frame's data cannot be carried: then only the field lies.
        carried = rule->lie.field_only || told > bus::kMaxData ? carried : told;
    }
    memory_read(card.memory, request.addr, MutableBytes(reply.bytes).subspan(bus::kData, carried));
    card.counters.bytes_read += carried;
    reply.size = bus::encode_reply(bus::kTypeReadBack, request.addr, told, carried, reply.bytes);
}

void answer(Card &card, const bus::Request &request, Outcome &out) {
    const AddressRule *refusal = apply_rule(card.faults, Fault::kError, request.addr);
    if (refusal != nullptr) {
        commit_fault(card.counters, Fault::kError, Disposition::kRefused, out);
    } else {
        out.disposition = Disposition::kAnswered;
    }
    Reply *reply = outcome_add(out);
    if (reply == nullptr) {
        return;
    }
    reply->protocol = &kBusBlockProtocol;
    reply->kind = ReplyKind::kReadData;
    if (refusal != nullptr) {
        build_refusal(request, refusal->status, *reply);
    } else {
        build_data(card, request, *reply);
    }
    apply_link_faults(draw_reply_faults(card.faults), *reply);
    count_faults(card.counters, reply->faults);
}

void carry_out(Card &card, const bus::Request &request, Outcome &out) {
    add_noise(card.faults, card.counters, out);
    if (fault_happens(card.faults, Fault::kDropRequest)) {
        commit_fault(card.counters, Fault::kDropRequest, Disposition::kLostRequest, out);
    } else if (request.type == bus::kTypeWrite) {
        memory_write(card.memory, request.addr, request.data);
        card.counters.bytes_written += request.data.size();
        out.disposition = Disposition::kWritten;
    } else if (apply_rule(card.faults, Fault::kSilence, request.addr) != nullptr) {
        commit_fault(card.counters, Fault::kSilence, Disposition::kSilent, out);
    } else {
        answer(card, request, out);
    }
}

void handle(Card &card, const Arrival &arrival, Outcome &out) {
    bus::Request request;
    const bus::Decoded decoded = bus::decode_request(arrival.frame, request);
    if (decoded != bus::Decoded::kRequest) {
        reject(card, decoded, out);
        return;
    }
    count_request(card.counters, request.type);
    carry_out(card, request, out);
}

} // namespace

const Protocol kBusBlockProtocol = {"bus", bus::is_from_board, handle, describe_bus_block};

} // namespace card

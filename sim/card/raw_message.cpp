#include "card/raw_message.h"

#include <algorithm>
#include <array>

#include "card/card.h"
#include "card/raw_message_text.h"
#include "faults/link_faults.h"
#include "firmware/firmware_text.h"

namespace card {

namespace {

struct BadRow {
    wire::Decoded decoded;
    Disposition disposition;
    uint64_t Counters::*total;
    uint64_t Counters::*reason;
};

constexpr BadRow kBadRows[] = {
    {wire::Decoded::kOtherProtocol, Disposition::kOtherProtocol, &Counters::ignored_frames,
     &Counters::ignored_other_protocol},
    {wire::Decoded::kOtherMarkers, Disposition::kOtherMarkers, &Counters::ignored_frames,
     &Counters::ignored_markers},
    {wire::Decoded::kBadType, Disposition::kBadType, &Counters::bad_frames, &Counters::bad_type},
    {wire::Decoded::kBadLength, Disposition::kBadLength, &Counters::bad_frames,
     &Counters::bad_length},
    {wire::Decoded::kBadCode, Disposition::kBadCode, &Counters::bad_frames, &Counters::bad_code},
    {wire::Decoded::kBadChecksum, Disposition::kBadChecksum, &Counters::bad_frames,
     &Counters::bad_checksum},
};

// One request, and all that is needed to carry it out.
struct Job {
    Card &card;
    const Arrival &arrival;
    const wire::Request &request;
    Outcome &out;
    RecentRequest *entry = nullptr;            // null for plain writes
    std::optional<FirmwareRequest> firmware{}; // what it means to the firmware side
};

// What a refused request is answered with.
struct Refusal {
    uint8_t status = 0;
    bool with_data = false;
};

bool is_mine(const Identity &identity, const wire::Request &request) {
    return identity.model.value_or(request.model) == request.model &&
           identity.slot.value_or(request.slot) == request.slot;
}

void reject(Card &card, wire::Decoded decoded, Outcome &out) {
    for (const BadRow &row : kBadRows) {
        if (row.decoded == decoded) {
            out.disposition = row.disposition;
            card.counters.*row.total += 1;
            card.counters.*row.reason += 1;
        }
    }
}

void count_request(Counters &counters, uint8_t code) {
    counters.requests++;
    counters.reads += code == wire::kCodeRead ? 1U : 0U;
    counters.writes += code != wire::kCodeRead ? 1U : 0U;
    counters.plain_writes += code == wire::kCodeWrite ? 1U : 0U;
    counters.acknowledged_writes += code == wire::kCodeWriteAck ? 1U : 0U;
}

// Plain writes are not looked up: they are never sent again, and all carry the same number.
RecentRequest *note_request(const Job &job) {
    if (job.request.code == wire::kCodeWrite) {
        return nullptr;
    }
    const uint64_t print =
        fingerprint(job.arrival.frame.subspan(wire::kSumStart), job.arrival.link);
    const RecentLookup found = recent_note(job.card.recent, print, job.arrival.now_us);
    Counters &counters = job.card.counters;
    if (found.resend) {
        counters.resends++;
    } else {
        counters.unanswered_requests++;
    }
    job.out.resend = found.resend;
    return found.entry;
}

// Read requests carry no data: for them this does nothing.
void write_registers(const Job &job) {
    if (job.request.code == wire::kCodeRead) {
        return;
    }
    const wire::Request &request = job.request;
    memory_write(job.card.memory, request.addr, request.data);
    picture_write(job.card.picture, request.addr, request.data, job.card.memory, job.card.counters);
    if (job.firmware) {
        firmware_write(job.card.firmware, request, *job.firmware, job.card.counters);
        if (job.entry != nullptr) {
            job.entry->firmware_mark = job.card.firmware.number;
        }
    }
    job.card.counters.bytes_written += request.data.size();
}

void read_registers(const Job &job, MutableBytes out) {
    const wire::Request &request = job.request;
    const FifoRead read{
        .link = job.arrival.link, .seq = request.seq, .addr = request.addr, .len = request.len};
    const bool wanted = request.code == wire::kCodeRead;
    if (!wanted || !picture_read(job.card.picture, read, out, job.card.counters)) {
        memory_read(job.card.memory, request.addr, out);
    }
}

// Carry out a request that gets no answer. A read takes its bytes out of the FIFO all the same.
void carry_out_unheard(const Job &job) {
    std::array<uint8_t, wire::kMaxPayload> unheard;
    write_registers(job);
    if (job.request.code == wire::kCodeRead) {
        read_registers(job, MutableBytes(unheard).first(job.request.len));
    }
}

// How many payload bytes the honest answer carries.
uint16_t honest_length(const wire::Request &request, const std::optional<Refusal> &refusal) {
    const bool has_data = request.code == wire::kCodeRead && (!refusal || refusal->with_data);
    return has_data ? request.len : uint16_t{0};
}

wire::ReplyHead honest_head(const wire::Request &request, const std::optional<Refusal> &refusal) {
    wire::ReplyHead head;
    head.status = refusal ? refusal->status : wire::kStatusCarriedOut;
    head.model = request.model;
    head.slot = request.slot;
    head.code = request.code; // an acknowledgement carries the code of the write
    head.addr = request.addr;
    head.seq = request.seq;
    head.len = honest_length(request, refusal);
    return head;
}

// Let the length field lie; returns how many bytes the payload carries then.
size_t tell_length(const LengthLie *lie, wire::ReplyHead &head) {
    constexpr uint32_t kFieldMax = 0xFFFF;
    const size_t honest = head.len;
    if (lie == nullptr) {
        return honest;
    }
    const uint32_t told = lie->relative ? head.len + lie->amount : lie->amount;
    head.len = static_cast<uint16_t>(std::min(told, kFieldMax));
    // More than a frame's payload cannot be carried: then only the field lies.
    return lie->field_only || head.len > wire::kMaxPayload ? honest : head.len;
}

// An option that says what the card does anyway is no fault.
template <class Value>
void set_if_other(Value &field, Value value, Fault fault, FaultSet &set) {
    if (field != value) {
        field = value;
        set.add(fault);
    }
}

void apply_fixed_faults(const FaultConfig &config, wire::ReplyHead &head, FaultSet &set) {
    const bool is_read = head.code == wire::kCodeRead;
    if (is_read && config.read_code) {
        set_if_other(head.code, *config.read_code, Fault::kReadCode, set);
    }
    if (!is_read && config.ack_code) {
        set_if_other(head.code, *config.ack_code, Fault::kAckCode, set);
    }
    if (config.reply_type) {
        set_if_other(head.type, *config.reply_type, Fault::kType, set);
    }
}

void build_frame(const Job &job, const std::optional<Refusal> &refusal, Reply &reply) {
    const wire::Request &request = job.request;
    wire::ReplyHead head = honest_head(request, refusal);
    const AddressRule *lie = apply_rule(job.card.faults, Fault::kLieLength, request.addr);
    const size_t carried = tell_length(lie == nullptr ? nullptr : &lie->lie, head);
    if (lie != nullptr) {
        reply.faults.add(Fault::kLieLength);
    }
    apply_fixed_faults(job.card.faults.config, head, reply.faults);
    const MutableBytes frame(reply.bytes);
    read_registers(job, frame.subspan(wire::reply::kPayload, carried));
    job.card.counters.bytes_read += carried;
    reply.size = wire::encode_reply(head, carried, frame);
}

void mark_answered(const Job &job, const Reply &reply, bool carried_out) {
    if (job.entry == nullptr || reply.copies == 0 || reply.faults.has(Fault::kCorrupt)) {
        return;
    }
    RecentRequest &entry = *job.entry;
    if (!entry.answered) {
        entry.answered = true;
        job.card.counters.unanswered_requests--;
    }
    if (carried_out && !entry.settled) {
        entry.settled = true;
        entry.settled_us = job.arrival.now_us + reply.delay_us;
    }
}

// Rules for addresses come first, because they can be used up; those of the firmware side cannot.
std::optional<Refusal> find_refusal(const Job &job) {
    const AddressRule *rule = apply_rule(job.card.faults, Fault::kError, job.request.addr);
    if (rule != nullptr) {
        return Refusal{.status = rule->status, .with_data = rule->with_data};
    }
    if (job.firmware) {
        if (const auto status = firmware_refusal(job.card.firmware, *job.firmware)) {
            return Refusal{.status = *status};
        }
    }
    return std::nullopt;
}

void answer(const Job &job) {
    const std::optional<Refusal> refusal = find_refusal(job);
    if (refusal) {
        commit_fault(job.card.counters, Fault::kError, Disposition::kRefused, job.out);
    } else {
        job.out.disposition = Disposition::kAnswered;
        write_registers(job);
    }
    Reply *reply = outcome_add(job.out);
    if (reply == nullptr) {
        return;
    }
    reply->protocol = &kRawMessageProtocol;
    reply->kind =
        job.request.code == wire::kCodeRead ? ReplyKind::kReadData : ReplyKind::kAcknowledgement;
    build_frame(job, refusal, *reply);
    apply_link_faults(draw_reply_faults(job.card.faults), *reply);
    count_faults(job.card.counters, reply->faults);
    mark_answered(job, *reply, !refusal);
}

void note_firmware(Job &job) {
    const uint64_t mark = job.entry == nullptr ? 0 : job.entry->firmware_mark;
    job.firmware = classify_firmware(job.card.firmware, job.request, mark);
    if (job.firmware) {
        job.out.remark = describe_firmware_request(*job.firmware);
    }
}

void carry_out(Job job) {
    job.entry = note_request(job);
    note_firmware(job);
    add_noise(job.card.faults, job.card.counters, job.out);
    if (fault_happens(job.card.faults, Fault::kDropRequest)) {
        commit_fault(job.card.counters, Fault::kDropRequest, Disposition::kLostRequest, job.out);
    } else if (job.request.code == wire::kCodeWrite) {
        write_registers(job);
        job.out.disposition = Disposition::kWritten;
    } else if (apply_rule(job.card.faults, Fault::kSilence, job.request.addr) != nullptr) {
        carry_out_unheard(job);
        commit_fault(job.card.counters, Fault::kSilence, Disposition::kSilent, job.out);
    } else {
        answer(job);
    }
}

void handle(Card &card, const Arrival &arrival, Outcome &out) {
    wire::Request request;
    const wire::Decoded decoded = wire::decode_request(arrival.frame, request);
    if (decoded != wire::Decoded::kRequest) {
        reject(card, decoded, out);
        return;
    }
    if (!is_mine(card.identity, request)) {
        out.disposition = Disposition::kOtherCard;
        card.counters.ignored_frames++;
        card.counters.ignored_other_card++;
        return;
    }
    count_request(card.counters, request.code);
    carry_out({.card = card, .arrival = arrival, .request = request, .out = out});
}

} // namespace

const Protocol kRawMessageProtocol = {"raw", wire::is_from_board, handle, describe_raw_message};

} // namespace card

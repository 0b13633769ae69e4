#include "world/card.h"

#include "scheduler/choices.h"
#include "scheduler/settings.h"
#include "scheduler/trace.h"
#include "world/bus_card.h"
#include "world/picture_card.h"

#include <algorithm>

namespace sim {

namespace {

struct Written {
    uint32_t addr;
    uint32_t len;
};

struct Card {
    std::vector<Written> written;
    std::vector<Asked> asked;
    bool is_silent = false;
};
Card g_cards[kInterfaces];

constexpr uint8_t kRead = 0x00;
constexpr uint8_t kWrite = 0x01;
constexpr uint8_t kWriteAck = 0x11;
constexpr uint32_t kLongest = 1400;

struct Request {
    uint32_t model, slot, seq, code, addr, len;
    const uint8_t *payload;
    uint32_t payload_len;
};

uint32_t number(const uint8_t *bytes, int count) {
    uint32_t value = 0;
    for (int i = count - 1; i >= 0; i--) {
        value = value * 256 + bytes[i];
    }
    return value;
}

void put(Frame &frame, uint32_t value, int count) {
    for (int i = 0; i < count; i++) {
        frame.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
}

uint16_t sum_of(const uint8_t *from, const uint8_t *to) {
    uint32_t sum = 0x5555;
    for (; from != to; from++) {
        sum += *from;
    }
    return static_cast<uint16_t>(sum);
}

bool is_raw_message(const Frame &frame) {
    static const uint8_t kHead[] = {0xEB, 0x90, 0xEB, 0x90, 0xEB, 0x90, 0x44, 0x44,
                                    0x44, 0x44, 0x44, 0x44, 0x07, 0x00, 0x55, 0xAA};
    return frame.size() >= 94 && std::equal(std::begin(kHead), std::end(kHead), frame.begin());
}

Request decode(const Frame &frame) {
    const uint8_t *f = frame.data();
    return {.model = number(f + 16, 2),
            .slot = f[18],
            .seq = number(f + 19, 2),
            .code = f[21],
            .addr = number(f + 22, 4),
            .len = number(f + 26, 2),
            .payload = f + 28,
            .payload_len = static_cast<uint32_t>(frame.size()) - 30};
}

bool is_intact(const Frame &frame) {
    const uint8_t *end = frame.data() + frame.size() - 2;
    return sum_of(frame.data() + 16, end) == number(end, 2);
}

// Which requests a reply is for: the board's own fields come back.
void reply(int index, const Request &request, uint8_t status, const Frame &data) {
    Frame frame{0x44, 0x44, 0x44, 0x44, 0x44, 0x44, 0xEB, 0x90,
                0xEB, 0x90, 0xEB, 0x90, 0x07, 0x00, 0xAA, 0x55};
    put(frame, status, 1);
    put(frame, request.model, 2);
    put(frame, request.slot, 1);
    put(frame, request.seq, 2);
    put(frame, request.code, 1);
    put(frame, request.addr, 4);
    put(frame, static_cast<uint32_t>(data.size()), 2);
    frame.insert(frame.end(), data.begin(), data.end());
    const uint16_t sum = sum_of(frame.data() + 16, frame.data() + frame.size());
    while (frame.size() < 58) {
        frame.push_back(0);
    }
    put(frame, sum, 2);
    send_to_board(index, std::move(frame));
}

Asked &note(Card &card, const Request &request) {
    for (Asked &known : card.asked) {
        if (known.addr == request.addr && known.seq == request.seq && known.code == request.code) {
            return known;
        }
    }
    card.asked.push_back({.addr = request.addr,
                          .seq = static_cast<uint16_t>(request.seq),
                          .code = static_cast<uint8_t>(request.code),
                          .transmissions = 0,
                          .refusals = 0,
                          .refused_with = {},
                          .odd_replies = 0,
                          .answered_at = kNever,
                          .stolen_by_then = 0,
                          .data_sent = {}});
    return card.asked.back();
}

void carry_out_write(int index, const Request &request) {
    if (request.len > kLongest || request.payload_len < request.len) {
        fail("card %d: a write says %u bytes and carries %u", index, request.len,
             request.payload_len);
    }
    if (is_picture_register(request.addr)) {
        picture_register_written(index, request.addr, request.payload, request.len);
        return;
    }
    for (uint32_t i = 0; i < request.len; i++) {
        if (request.payload[i] != written_byte(index, request.addr + i)) {
            fail("card %d: wrong byte %02x in a write to 0x%x", index, request.payload[i],
                 request.addr + i);
        }
    }
    g_cards[index].written.push_back({.addr = request.addr, .len = request.len});
}

Frame data_for(int index, const Request &request) {
    uint32_t len = request.len;
    if (fault(g_settings.odd_reply_one_in)) {
        const uint32_t odd[] = {0, 1, kLongest, kLongest + 1, 1419};
        len = odd[g_choices.pick(std::size(odd))];
    }
    Frame data(len);
    for (uint32_t i = 0; i < len; i++) {
        data[i] = is_picture_register(request.addr) ? picture_register_byte(index, request.addr, i)
                                                    : card_byte(index, request.addr + i);
    }
    return data;
}

} // namespace

void reset_cards() {
    for (Card &card : g_cards) {
        card.written.clear();
        card.asked.clear();
        card.is_silent = false;
    }
}

uint8_t initial_byte(int index, uint32_t addr) {
    return static_cast<uint8_t>((addr * 2654435761U >> 24) + static_cast<uint32_t>(index) * 85);
}

uint8_t written_byte(int index, uint32_t addr) {
    return static_cast<uint8_t>(((addr + 77) * 2246822519U >> 24) +
                                static_cast<uint32_t>(index) * 29 + 1);
}

bool card_has_written(int index, uint32_t addr, uint32_t len) {
    const auto &written = g_cards[index].written;
    return std::any_of(written.begin(), written.end(),
                       [=](const Written &w) { return w.addr == addr && w.len == len; });
}

uint8_t card_byte(int index, uint32_t addr) {
    const auto &written = g_cards[index].written;
    const bool is_written = std::any_of(written.begin(), written.end(),
                                        [=](const Written &w) { return addr - w.addr < w.len; });
    return is_written ? written_byte(index, addr) : initial_byte(index, addr);
}

const Asked *asked(int index, uint32_t addr, uint8_t code) {
    for (const Asked &known : g_cards[index].asked) {
        if (known.addr == addr && known.code == code) {
            return &known;
        }
    }
    return nullptr;
}

void note_transmission(int index, const Frame &frame) {
    if (!is_raw_message(frame)) {
        return;
    }
    if (!is_intact(frame)) {
        fail("a frame with a wrong checksum leaves the board");
    }
    Asked &known = note(g_cards[index], decode(frame));
    known.transmissions += 1;
    if (known.transmissions > 1 && known.code != kWrite && g_settings.send_fails_one_in == 0 &&
        has_been_answered(known)) {
        fail("a request for 0x%x is sent again, and its answer had come", known.addr);
    }
}

void note_taken(int index, const Frame &frame) {
    constexpr size_t kShortestReply = 31;
    const uint8_t *f = frame.data();
    if (frame.size() < kShortestReply || f[0] != 0x44 || f[14] != 0xAA || f[15] != 0x55 ||
        f[16] != 0) {
        return;
    }
    const uint32_t len = number(f + 27, 2);
    const size_t end = 29 + size_t{len};
    if (end + 2 > frame.size() || len > kLongest || (f[22] == kRead && len == 0) ||
        sum_of(f + 16, f + end) != number(f + frame.size() - 2, 2)) {
        return;
    }
    for (Asked &known : g_cards[index].asked) {
        if (known.addr == number(f + 23, 4) && known.seq == number(f + 20, 2) &&
            known.code == f[22] && known.answered_at == kNever) {
            known.answered_at = now();
            known.stolen_by_then = stolen_time();
        }
    }
}

// Time that is not stolen passes only when the receive thread, too, has nothing to do any more.
bool has_been_answered(const Asked &known) {
    return known.answered_at != kNever &&
           now() - known.answered_at > stolen_time() - known.stolen_by_then + kMillisecond;
}

void set_card_silent(int index, bool is_silent) {
    g_cards[index].is_silent = is_silent;
}

void card_receives(int index, const Frame &frame) {
    Card &card = g_cards[index];
    if (bus_card_receives(index, frame)) {
        return;
    }
    if (!is_raw_message(frame) || !is_intact(frame) || card.is_silent) {
        return;
    }
    const Request request = decode(frame);
    Asked &known = note(card, request);
    SIM_TELL("  card %d: code %02x addr 0x%x seq %u len %u", index, request.code, request.addr,
             request.seq, request.len);
    if (request.code == kWrite) {
        carry_out_write(index, request);
        return;
    }
    if (request.code != kRead && request.code != kWriteAck) {
        fail("card %d: code 0x%x from the board", index, request.code);
    }
    if (fault(g_settings.refuse_one_in)) {
        const auto status = static_cast<uint8_t>(1 + g_choices.pick(254));
        known.refusals += 1;
        known.refused_with.push_back(status);
        SIM_TELL("  card %d: refuses with status %u", index, status);
        reply(index, request, status, Frame(g_choices.pick(3) * 20, 0xEE));
        return;
    }
    if (request.code == kWriteAck) {
        carry_out_write(index, request);
        const bool is_odd = fault(g_settings.odd_reply_one_in);
        known.odd_replies += is_odd ? 1U : 0U;
        reply(index, request, is_odd ? 255 : 0, {});
        return;
    }
    const Frame data = data_for(index, request);
    known.data_sent.push_back(static_cast<uint32_t>(data.size()));
    known.odd_replies += data.size() == request.len ? 0U : 1U;
    reply(index, request, 0, data);
}

} // namespace sim

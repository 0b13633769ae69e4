#include "stand_ins/fake_card.h"

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <ostream>

namespace {

constexpr size_t kReadBuffer = 1400;

ReadAnswer zeros(const CardCall &call) {
    return {.result = 0, .data = Bytes(std::min<size_t>(call.len, kReadBuffer))};
}

struct Card {
    std::mutex lock;
    std::vector<CardCall> calls;
    int plain_result = 0;
    int acked_result = 0;
    uint8_t acked_status = 0;
    std::function<uint8_t(const CardCall &)> choose_status; // none: acked_status
    std::function<ReadAnswer(const CardCall &)> answer_read = zeros;
};

// Never destroyed: a thread of the product may still call while the process ends.
Card &card() {
    static auto *const the_card = new Card;
    return *the_card;
}

} // namespace

// Visible outside: a sanitizer's library calls the wrapped names, too.
#pragma GCC visibility push(default)

extern "C" {

int __wrap_RawSockSendMsg(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code,
                          const uint8_t *data, uint32_t len);
int __wrap_RawSockSendMsgWithAckWait(int index, uint16_t model, uint8_t slot, uint32_t addr,
                                     uint8_t code, const uint8_t *data, uint32_t len, uint8_t *ack,
                                     int32_t ticks);
int __wrap_RawSockSendMsgWithReadWait(int index, uint16_t model, uint8_t slot, uint32_t addr,
                                      uint8_t code, uint32_t len, uint8_t *read_buf,
                                      uint32_t *out_len, int32_t ticks);

int __wrap_RawSockSendMsgWithAck(uint32_t requester, int index, uint16_t model, uint8_t slot,
                                 uint32_t addr, uint8_t code, const uint8_t *data, uint32_t len);
int __wrap_RawSockSendMsgWithRead(uint32_t requester, int index, uint16_t model, uint8_t slot,
                                  uint32_t addr, uint8_t code, uint32_t len, uint8_t *read_buf,
                                  uint32_t *out_len);

int __wrap_RawSockSendMsg(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code,
                          const uint8_t *data, uint32_t len) {
    Card &c = card();
    const std::lock_guard guard(c.lock);
    c.calls.push_back({'w', index, model, slot, addr, code, Bytes(data, data + len), len, 0});
    return c.plain_result;
}

int __wrap_RawSockSendMsgWithAckWait(int index, uint16_t model, uint8_t slot, uint32_t addr,
                                     uint8_t code, const uint8_t *data, uint32_t len, uint8_t *ack,
                                     int32_t ticks) {
    constexpr uint8_t kNoAnswer = 0xFF;
    Card &c = card();
    const CardCall call{'a', index, model, slot, addr, code, Bytes(data, data + len), len, ticks};
    std::function<uint8_t(const CardCall &)> choose_status;
    {
        const std::lock_guard guard(c.lock);
        c.calls.push_back(call);
        *ack = c.acked_status;
        if (!c.choose_status) {
            return c.acked_result;
        }
        choose_status = c.choose_status;
    }
    *ack = choose_status(call);
    return *ack == kNoAnswer ? -1 : 0;
}

int __wrap_RawSockSendMsgWithReadWait(int index, uint16_t model, uint8_t slot, uint32_t addr,
                                      uint8_t code, uint32_t len, uint8_t *read_buf,
                                      uint32_t *out_len, int32_t ticks) {
    Card &c = card();
    const CardCall call{'r', index, model, slot, addr, code, {}, len, ticks};
    std::function<ReadAnswer(const CardCall &)> answer_read;
    {
        const std::lock_guard guard(c.lock);
        c.calls.push_back(call);
        answer_read = c.answer_read;
    }
    const ReadAnswer answer = answer_read(call);
    std::copy(answer.data.begin(), answer.data.end(), read_buf);
    if (answer.is_sent) {
        *out_len = answer.told_len.value_or(static_cast<uint32_t>(answer.data.size()));
    }
    return answer.result;
}

int __wrap_RawSockSendMsgWithAck(uint32_t requester, int index, uint16_t model, uint8_t slot,
                                 uint32_t addr, uint8_t code, const uint8_t *data, uint32_t len) {
    Card &c = card();
    const std::lock_guard guard(c.lock);
    c.calls.push_back(
        {'A', index, model, slot, addr, code, Bytes(data, data + len), len, 0, requester});
    return c.acked_result;
}

int __wrap_RawSockSendMsgWithRead(uint32_t requester, int index, uint16_t model, uint8_t slot,
                                  uint32_t addr, uint8_t code, uint32_t len, uint8_t *read_buf,
                                  uint32_t * /*out_len*/) {
    Card &c = card();
    const std::lock_guard guard(c.lock);
    const CardCall call{'R', index, model, slot, addr, code, {}, len, 0, requester};
    c.calls.push_back(call);
    const ReadAnswer answer = c.answer_read(call);
    std::copy(answer.data.begin(), answer.data.end(), read_buf);
    return answer.result;
}

} // extern "C"

#pragma GCC visibility pop

std::ostream &operator<<(std::ostream &out, const CardCall &call) {
    char text[160];
    (void)snprintf(
        text, sizeof text,
        "%c index %d model 0x%x slot 0x%x addr 0x%x code 0x%x len %u ticks %d:", call.kind,
        call.index, call.model, call.slot, call.addr, call.code, call.len, call.ticks);
    out << text;
    constexpr size_t kShown = 16;
    for (size_t i = 0; i < std::min(call.bytes.size(), kShown); i++) {
        (void)snprintf(text, sizeof text, " %02x", call.bytes[i]);
        out << text;
    }
    return out;
}

CardCall plain_write(int index, uint16_t model, uint8_t slot, uint32_t addr, const Bytes &bytes) {
    return {'w', index, model, slot, addr, 1, bytes, static_cast<uint32_t>(bytes.size()), 0};
}

CardCall acked_write(int index, uint16_t model, uint8_t slot, uint32_t addr, const Bytes &bytes,
                     int32_t ticks) {
    return {'a', index, model, slot, addr, 0x11, bytes, static_cast<uint32_t>(bytes.size()), ticks};
}

CardCall read_of(int index, uint16_t model, uint8_t slot, uint32_t addr, uint32_t len,
                 int32_t ticks) {
    return {'r', index, model, slot, addr, 0, {}, len, ticks};
}

CardCall acked_write_without_waiting(int index, uint16_t model, uint8_t slot, uint32_t addr,
                                     const Bytes &bytes) {
    return {'A', index, model, slot, addr, 0x11, bytes, static_cast<uint32_t>(bytes.size()), 0, 0};
}

CardCall read_without_waiting_of(int index, uint16_t model, uint8_t slot, uint32_t addr,
                                 uint32_t len) {
    return {'R', index, model, slot, addr, 0, {}, len, 0, 0};
}

void card_reset() {
    Card &c = card();
    const std::lock_guard guard(c.lock);
    c.calls.clear();
    c.plain_result = 0;
    c.acked_result = 0;
    c.acked_status = 0;
    c.choose_status = {};
    c.answer_read = zeros;
}

std::vector<CardCall> card_calls() {
    Card &c = card();
    const std::lock_guard guard(c.lock);
    return c.calls;
}

void card_answers_plain_writes(int result) {
    Card &c = card();
    const std::lock_guard guard(c.lock);
    c.plain_result = result;
}

void card_answers_acked_writes(int result, uint8_t status) {
    Card &c = card();
    const std::lock_guard guard(c.lock);
    c.acked_result = result;
    c.acked_status = status;
}

void card_answers_acked_writes(std::function<uint8_t(const CardCall &)> status) {
    Card &c = card();
    const std::lock_guard guard(c.lock);
    c.choose_status = std::move(status);
}

void card_answers_reads(std::function<ReadAnswer(const CardCall &)> answer) {
    Card &c = card();
    const std::lock_guard guard(c.lock);
    c.answer_read = std::move(answer);
}

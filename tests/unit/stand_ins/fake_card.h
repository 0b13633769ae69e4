// fake_card.h - the transaction layer's send operations, answered by the test.
//
// Linked with --wrap=RawSockSendMsg,RawSockSendMsgWithAckWait,RawSockSendMsgWithReadWait, and where
// it matters --wrap=RawSockSendMsgWithAck,RawSockSendMsgWithRead: each call is recorded with all
// its arguments and gets the answer that the test has set.
#ifndef TESTS_UNIT_STAND_INS_FAKE_CARD_H
#define TESTS_UNIT_STAND_INS_FAKE_CARD_H

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <optional>
#include <vector>

using Bytes = std::vector<uint8_t>;

struct CardCall {
    char kind; // 'w' plain write, 'a' acknowledged write, 'r' read; 'A', 'R' without waiting
    int index;
    uint16_t model;
    uint8_t slot;
    uint32_t addr;
    uint8_t code;
    Bytes bytes; // of writes
    uint32_t len;
    int32_t ticks;          // of acknowledged writes and reads
    uint32_t requester = 0; // of those without waiting

    bool operator==(const CardCall &) const = default;
};
std::ostream &operator<<(std::ostream &out, const CardCall &call);

/** The calls as a test expects them. */
CardCall plain_write(int index, uint16_t model, uint8_t slot, uint32_t addr, const Bytes &bytes);
CardCall acked_write(int index, uint16_t model, uint8_t slot, uint32_t addr, const Bytes &bytes,
                     int32_t ticks);
CardCall read_of(int index, uint16_t model, uint8_t slot, uint32_t addr, uint32_t len,
                 int32_t ticks);

CardCall acked_write_without_waiting(int index, uint16_t model, uint8_t slot, uint32_t addr,
                                     const Bytes &bytes);
CardCall read_without_waiting_of(int index, uint16_t model, uint8_t slot, uint32_t addr,
                                 uint32_t len);

/** As the real read does it: 0 when data came, which lie in the buffer whatever was asked for. */
struct ReadAnswer {
    int result;
    Bytes data;                            // at most 1400 bytes
    std::optional<uint32_t> told_len = {}; // when it is not that of the data
    bool is_sent = true;                   // when not, the length is left as it was
};

/** Forget all calls; writes succeed again, reads give as many zeros as they ask for. */
void card_reset();

std::vector<CardCall> card_calls();

/** What plain writes return from now on. */
void card_answers_plain_writes(int result);

/** What acknowledged writes return and the status that they store, where they wait for one. */
void card_answers_acked_writes(int result, uint8_t status);

/** Who chooses the status of acknowledged writes, called without any lock; 0xFF: no answer, -1. */
void card_answers_acked_writes(std::function<uint8_t(const CardCall &)> status);

/** Who answers reads; called without any lock, so that it may wait. */
void card_answers_reads(std::function<ReadAnswer(const CardCall &)> answer);

#endif

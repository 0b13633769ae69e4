// The card's side of the bus block protocol, frame by frame, with offsets of this file's own.
#include "run/protocols.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <numeric>

#include "requests.h"
#include "run/trace.h"

namespace {

using card::Disposition;
using card::Fault;
using requests::Frame;
using requests::value_at;

void put(Frame &frame, size_t offset, uint32_t value, size_t width) {
    for (size_t i = 0; i < width; i++) {
        frame[offset + i] = static_cast<uint8_t>(value >> (8 * i));
    }
}

uint32_t sum(const uint8_t *frame, size_t end) {
    return std::accumulate(frame + 6, frame + end, 0U) & 0xFFFF;
}

// A request with the checksum over as many data as its length says.
Frame request(uint8_t type, uint32_t addr, uint32_t len, const Frame &data) {
    Frame frame = {0xEB, 0x90, 0xEB, 0x90, 0xEB, 0x90};
    frame.resize(24 + std::max<size_t>(data.size(), 64) + 2, 0);
    put(frame, 6, static_cast<uint32_t>(frame.size()), 4);
    frame[11] = type;
    frame[12] = 7;
    put(frame, 16, addr, 4);
    put(frame, 20, len, 4);
    std::ranges::copy(data, frame.begin() + 24);
    put(frame, frame.size() - 2, sum(frame.data(), std::min<size_t>(24 + len, frame.size() - 2)),
        2);
    return frame;
}

Frame write_request(uint32_t addr, const Frame &data) {
    return request(0, addr, static_cast<uint32_t>(data.size()), data);
}

Frame read_request(uint32_t addr, uint32_t len) {
    return request(1, addr, len, {});
}

Frame pattern(size_t size) {
    Frame bytes(size);
    for (size_t i = 0; i < size; i++) {
        bytes[i] = static_cast<uint8_t>(1 + i % 251);
    }
    return bytes;
}

class CardBusBlock : public testing::Test {
protected:
    void arm_always(Fault fault) {
        card::FaultConfig config;
        config.rates_ppm[static_cast<size_t>(fault)] = card::kAlways;
        card_->faults = card::make_fault_engine(config);
    }
    void arm_rule(Fault fault, uint8_t status, card::LengthLie lie = {}) {
        card::AddressRule rule;
        rule.fault = fault;
        rule.range = {0x7000, 0x7FFF, 1};
        rule.status = status;
        rule.lie = lie;
        card::FaultConfig config;
        config.rules = {rule};
        card_->faults = card::make_fault_engine(config);
    }
    // Receive a frame; the number of frames that come of it.
    size_t receive(const Frame &frame) {
        card::card_receive(*card_, {frame, 0, 0}, *outcome_);
        return outcome_->count;
    }
    [[nodiscard]] const card::Reply &reply(size_t index = 0) const {
        return outcome_->replies[index];
    }
    [[nodiscard]] uint32_t field(size_t offset, size_t width) const {
        return value_at(reply().bytes.data(), offset, width);
    }
    [[nodiscard]] Frame carried(size_t size) const {
        const card::Bytes data = reply().frame().subspan(24, size);
        return {data.begin(), data.end()};
    }
    [[nodiscard]] Frame stored(uint32_t addr, size_t size) const {
        Frame out(size);
        card::memory_read(card_->memory, addr, out);
        return out;
    }
    // What every reply must be.
    void expect_reply(uint8_t type, uint32_t addr, uint32_t len, size_t size) const {
        ASSERT_EQ(reply().size, size);
        EXPECT_EQ(Frame(reply().bytes.begin(), reply().bytes.begin() + 6), Frame(6, 0x44));
        EXPECT_EQ(field(6, 4), size);
        EXPECT_EQ(field(10, 1), 0U);
        EXPECT_EQ(field(11, 1), type);
        EXPECT_EQ(field(12, 4), 7U);
        EXPECT_EQ(field(16, 4), addr);
        EXPECT_EQ(field(20, 4), len);
        EXPECT_EQ(field(size - 2, 2), sum(reply().bytes.data(), size - 2));
    }
    [[nodiscard]] const card::Counters &counters() const {
        return card_->counters;
    }

    std::unique_ptr<card::Card> card_ = std::make_unique<card::Card>();
    std::unique_ptr<card::Outcome> outcome_ = std::make_unique<card::Outcome>();
};

TEST_F(CardBusBlock, WritesOfEverySizeAreStoredAndNotAnswered) {
    for (const size_t size : {0U, 1U, 63U, 64U, 65U, 8000U}) {
        EXPECT_EQ(receive(write_request(0x10000, pattern(size))), 0U) << size;
        EXPECT_EQ(outcome_->disposition, Disposition::kWritten);
        Frame expected = pattern(size);
        const Frame got = stored(0x10000, size);
        EXPECT_EQ(got, expected);
    }
    EXPECT_EQ(stored(0x10000 + 8000, 64), Frame(64, 0)); // nothing behind it
    EXPECT_EQ(counters().plain_writes, 6U);
    EXPECT_EQ(counters().requests, 6U);
    EXPECT_EQ(counters().bytes_written, 8193U);
}

TEST_F(CardBusBlock, PaddingIsNotWritten) {
    (void)receive(write_request(0x100, Frame(64, 0xAA)));
    (void)receive(write_request(0x100, {1, 2, 3}));
    EXPECT_EQ(stored(0x100, 5), (Frame{1, 2, 3, 0xAA, 0xAA}));
}

TEST_F(CardBusBlock, ReadsOfEverySizeAreAnsweredWithTheData) {
    (void)receive(write_request(0x7000, pattern(8000)));
    for (const uint32_t size : {0U, 1U, 63U, 64U, 65U, 1400U, 8000U}) {
        ASSERT_EQ(receive(read_request(0x7000, size)), 1U) << size;
        EXPECT_EQ(outcome_->disposition, Disposition::kAnswered);
        expect_reply(2, 0x7000, size, std::max(size, 64U) + 26);
        EXPECT_EQ(carried(size), pattern(size));
        EXPECT_EQ(reply().copies, 1U);
    }
    EXPECT_EQ(counters().reads, 7U);
    EXPECT_EQ(counters().bytes_read, 9593U);
    EXPECT_EQ(counters().bad_frames + counters().ignored_frames, 0U);
}

TEST_F(CardBusBlock, BothProtocolsSeeTheSameMemory) {
    (void)receive(write_request(0x7000, {0xDE, 0xAD}));
    ASSERT_EQ(receive(requests::read(0x7000, 2)), 1U);
    EXPECT_EQ(value_at(reply().bytes.data(), 29, 2), 0xADDEU);
    EXPECT_STREQ(outcome_->protocol->name, "raw");
    (void)receive(requests::plain_write(0x7001, {0xBE}));
    ASSERT_EQ(receive(read_request(0x7000, 2)), 1U);
    EXPECT_EQ(carried(2), (Frame{0xDE, 0xBE}));
    EXPECT_STREQ(outcome_->protocol->name, "bus");
}

TEST_F(CardBusBlock, EveryCardAnswersWhateverItsModelAndSlot) {
    card_->identity = {.model = uint16_t{9}, .slot = uint8_t{9}};
    EXPECT_EQ(receive(read_request(0, 1)), 1U);
}

TEST_F(CardBusBlock, DamagedFramesAreCountedAndNotAnswered) {
    struct Row {
        Frame frame;
        Disposition disposition;
    };
    Frame wrong_sum = write_request(0x7000, {1, 2, 3});
    wrong_sum[24] ^= 0x40;
    Frame wrong_length = write_request(0x7000, pattern(65));
    put(wrong_length, 6, 90, 4);
    Frame cut = write_request(0x7000, pattern(8000));
    cut.resize(8000);
    Frame wrong_data_length = write_request(0x7000, pattern(65));
    put(wrong_data_length, 20, 66, 4);
    const Row rows[] = {
        {wrong_sum, Disposition::kBadChecksum},
        {wrong_length, Disposition::kBadLength},
        {cut, Disposition::kBadLength},
        {wrong_data_length, Disposition::kBadLength},
        {read_request(0x7000, 8001), Disposition::kBadLength},
        {read_request(0x7000, 0xFFFFFFFF), Disposition::kBadLength},
        {request(0, 0x7000, 0xFFFFFFFF, {}), Disposition::kBadLength},
        {request(2, 0x7000, 64, {}), Disposition::kBadCode},
        {request(0xFF, 0x7000, 64, {}), Disposition::kBadCode},
    };
    for (const Row &row : rows) {
        EXPECT_EQ(receive(row.frame), 0U);
        EXPECT_EQ(outcome_->disposition, row.disposition);
    }
    EXPECT_EQ(counters().bad_frames, 9U);
    EXPECT_EQ(counters().bad_checksum, 1U);
    EXPECT_EQ(counters().bad_length, 6U);
    EXPECT_EQ(counters().bad_code, 2U);
    EXPECT_EQ(counters().requests, 0U);
    EXPECT_EQ(stored(0x7000, 64), Frame(64, 0));
}

TEST_F(CardBusBlock, FramesOfNobodyAreLeftAlone) {
    const Frame good = read_request(0x7000, 1);
    for (const size_t offset : {0U, 5U, 10U, 12U, 13U, 14U, 15U}) {
        Frame other = good;
        other[offset] ^= 0x01;
        EXPECT_EQ(receive(other), 0U) << offset;
        EXPECT_EQ(outcome_->disposition, Disposition::kOtherProtocol) << offset;
    }
    for (size_t size = 0; size < good.size(); size++) {
        EXPECT_EQ(receive({good.begin(), good.begin() + static_cast<std::ptrdiff_t>(size)}), 0U);
    }
    EXPECT_EQ(counters().ignored_other_protocol, 97U);
    EXPECT_EQ(counters().requests + counters().bad_frames, 0U);
}

TEST_F(CardBusBlock, ARefusalIsAResponseWithTheStatus) {
    arm_rule(Fault::kError, 0x80);
    ASSERT_EQ(receive(read_request(0x7010, 5)), 1U);
    EXPECT_EQ(outcome_->disposition, Disposition::kRefused);
    expect_reply(3, 0x7010, 1, 90);
    EXPECT_EQ(carried(2), (Frame{0x80, 0}));
    ASSERT_EQ(receive(read_request(0x7010, 5)), 1U); // the rule held once
    expect_reply(2, 0x7010, 5, 90);
}

TEST_F(CardBusBlock, LengthsLie) {
    (void)receive(write_request(0x7000, pattern(8000)));
    arm_rule(Fault::kLieLength, 0, {.relative = true, .amount = 100});
    (void)receive(read_request(0x7000, 64));
    expect_reply(2, 0x7000, 164, 190);
    EXPECT_EQ(carried(164), pattern(164));
    arm_rule(Fault::kLieLength, 0, {.amount = 5000, .field_only = true});
    (void)receive(read_request(0x7000, 65));
    expect_reply(2, 0x7000, 5000, 91);
    arm_rule(Fault::kLieLength, 0, {.amount = 8001});
    (void)receive(read_request(0x7000, 65));
    expect_reply(2, 0x7000, 8001, 91);
    EXPECT_TRUE(reply().faults.has(Fault::kLieLength));
}

TEST_F(CardBusBlock, RequestsAndRepliesGetLost) {
    arm_always(Fault::kDropRequest);
    EXPECT_EQ(receive(write_request(0x7000, {1})), 0U);
    EXPECT_EQ(outcome_->disposition, Disposition::kLostRequest);
    EXPECT_EQ(receive(read_request(0x7000, 1)), 0U);
    EXPECT_EQ(stored(0x7000, 1), Frame{0});
    arm_always(Fault::kDrop);
    ASSERT_EQ(receive(read_request(0x7000, 1)), 1U);
    EXPECT_EQ(reply().copies, 0U);
    arm_rule(Fault::kSilence, 0);
    EXPECT_EQ(receive(read_request(0x7000, 1)), 0U);
    EXPECT_EQ(outcome_->disposition, Disposition::kSilent);
}

TEST_F(CardBusBlock, RepliesSufferTheFaultsOfTheLink) {
    (void)receive(write_request(0x7000, pattern(8000)));
    arm_always(Fault::kCorrupt);
    ASSERT_EQ(receive(read_request(0x7000, 8000)), 1U);
    EXPECT_NE(field(8024, 2), sum(reply().bytes.data(), 8024));
    arm_always(Fault::kDuplicate);
    ASSERT_EQ(receive(read_request(0x7000, 8000)), 1U);
    EXPECT_EQ(reply().copies, 2U);
    arm_always(Fault::kNoise);
    ASSERT_EQ(receive(read_request(0x7000, 8000)), 2U);
    EXPECT_EQ(reply(0).kind, card::ReplyKind::kNoise);
    EXPECT_EQ(reply(1).size, 8026U);
}

TEST_F(CardBusBlock, RepeatsAreNoResends) {
    arm_always(Fault::kDrop);
    (void)receive(read_request(0x7000, 1));
    (void)receive(read_request(0x7000, 1));
    EXPECT_EQ(counters().resends, 0U);
    EXPECT_EQ(counters().unanswered_requests, 0U);
}

TEST_F(CardBusBlock, TheTraceShowsBothDirections) {
    const Frame write = write_request(0x10, pattern(65));
    (void)receive(write);
    EXPECT_EQ(card::trace_received("card0", {write, 0, 0}, *outcome_),
              "    0.000000 card0 rx   91 block-write addr 00000010 len 65 -> written");
    const Frame read = read_request(0x7000, 5);
    arm_rule(Fault::kError, 0x80);
    (void)receive(read);
    EXPECT_EQ(card::trace_received("card0", {read, 0, 0}, *outcome_),
              "    0.000000 card0 rx   90 block-read addr 00007000 len 5 -> refused [error]");
    EXPECT_EQ(card::trace_sent("card0", 0, reply()),
              "    0.000000 card0 tx   90 block-response addr 00007000 len 1 flag 80");
    (void)receive(read);
    EXPECT_EQ(card::trace_sent("card0", 0, reply()),
              "    0.000000 card0 tx   90 block-data addr 00007000 len 5");
    const Frame unknown = request(9, 0, 0, {});
    (void)receive(unknown);
    EXPECT_EQ(card::trace_received("card0", {unknown, 0, 0}, *outcome_),
              "    0.000000 card0 rx   90 block-unknown addr 00000000 len 0 -> bad: code");
}

} // namespace

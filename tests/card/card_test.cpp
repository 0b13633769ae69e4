// The card without sockets: a request in, the frames to send out, the counters beside it.
#include "run/protocols.h"

#include <gtest/gtest.h>

#include <memory>

#include "requests.h"

namespace {

using card::Disposition;
using card::Fault;
using requests::Frame;
using requests::value_at;

constexpr uint8_t kAckCode = 0x11;

class CardTest : public testing::Test {
protected:
    void arm(const card::FaultConfig &config) {
        card_->faults = card::make_fault_engine(config);
    }
    void arm_rule(Fault fault, uint64_t times, uint8_t status = 0, bool with_data = false) {
        card::AddressRule rule;
        rule.fault = fault;
        rule.range = {0x7000, 0x7FFF, times};
        rule.status = status;
        rule.with_data = with_data;
        arm({.rules = {rule}});
    }
    void arm_lie(card::LengthLie lie) {
        card::AddressRule rule;
        rule.fault = Fault::kLieLength;
        rule.range = {0, 0xFFFFFFFF, 0};
        rule.lie = lie;
        arm({.rules = {rule}});
    }
    void arm_always(Fault fault) {
        card::FaultConfig config;
        config.rates_ppm[static_cast<size_t>(fault)] = card::kAlways;
        arm(config);
    }

    // Receive a frame; the number of frames that come of it.
    size_t receive(const Frame &frame, uint64_t now_us = 0, size_t link = 0) {
        card::card_receive(*card_, {frame, link, now_us}, *outcome_);
        return outcome_->count;
    }
    [[nodiscard]] const card::Reply &reply(size_t index = 0) const {
        return outcome_->replies[index];
    }
    [[nodiscard]] Frame sent() const {
        const card::Bytes frame = reply().frame();
        return {frame.begin(), frame.end()};
    }
    [[nodiscard]] uint32_t field(size_t offset, size_t width) const {
        return value_at(reply().bytes.data(), offset, width);
    }
    [[nodiscard]] Frame payload() const {
        const card::Bytes data = reply().frame().subspan(29, field(27, 2));
        return {data.begin(), data.end()};
    }
    [[nodiscard]] bool checksum_right() const {
        const size_t end = 29 + field(27, 2);
        return end + 2 <= reply().size &&
               field(reply().size - 2, 2) == requests::checksum(reply().bytes.data(), end);
    }
    [[nodiscard]] Frame stored(uint32_t addr, size_t size) const {
        Frame out(size);
        card::memory_read(card_->memory, addr, out);
        return out;
    }
    [[nodiscard]] const card::Counters &counters() const {
        return card_->counters;
    }
    [[nodiscard]] uint64_t committed(Fault fault) const {
        return counters().faults[static_cast<size_t>(fault)];
    }

    std::unique_ptr<card::Card> card_ = std::make_unique<card::Card>();
    std::unique_ptr<card::Outcome> outcome_ = std::make_unique<card::Outcome>();
};

TEST_F(CardTest, AcknowledgesAWriteAndEchoesItsHead) {
    const Frame data = {0x11, 0x22, 0x33, 0x44};
    ASSERT_EQ(
        receive(requests::build(
            {.model = 0x0102, .slot = 5, .seq = 0x0203, .code = 0x11, .addr = 0x12340, .len = 4},
            data)),
        1U);
    Frame expected = {0x44, 0x44, 0x44, 0x44, 0x44, 0x44, 0xEB, 0x90, 0xEB, 0x90,
                      0xEB, 0x90, 0x07, 0x00, 0xAA, 0x55, 0x00, 0x02, 0x01, 0x05,
                      0x03, 0x02, 0x11, 0x40, 0x23, 0x01, 0x00, 0x00, 0x00};
    expected.resize(58, 0);
    expected.push_back(0xD7); // 0x5555 + 0x82
    expected.push_back(0x55);
    EXPECT_EQ(sent(), expected);
    EXPECT_EQ(stored(0x12340, 5), (Frame{0x11, 0x22, 0x33, 0x44, 0x00}));
    EXPECT_EQ(counters().acknowledged_writes, 1U);
    EXPECT_EQ(counters().bytes_written, 4U);
}

TEST_F(CardTest, AnswersAReadWithTheBytesOfTheMemory) {
    Frame data(1400);
    for (size_t i = 0; i < data.size(); i++) {
        data[i] = static_cast<uint8_t>(i * 7);
    }
    card::memory_write(card_->memory, 0xA0000, data);
    ASSERT_EQ(receive(requests::read(0xA0000, 1400, 7)), 1U);
    EXPECT_EQ(reply().size, 1431U);
    EXPECT_EQ(field(16, 1), 0U); // status
    EXPECT_EQ(field(20, 2), 7U); // number
    EXPECT_EQ(field(22, 1), 0U); // code
    EXPECT_EQ(payload(), data);
    EXPECT_TRUE(checksum_right());
    ASSERT_EQ(receive(requests::read(0xA0000, 1)), 1U);
    EXPECT_EQ(reply().size, 60U);
    EXPECT_EQ(payload(), Frame{0});
    EXPECT_TRUE(checksum_right());
    EXPECT_EQ(counters().reads, 2U);
    EXPECT_EQ(counters().bytes_read, 1401U);
}

TEST_F(CardTest, WritesWithoutAnswerWhenNoneIsWanted) {
    EXPECT_EQ(receive(requests::plain_write(0x7040, {9, 8})), 0U);
    EXPECT_EQ(outcome_->disposition, Disposition::kWritten);
    EXPECT_EQ(stored(0x7040, 2), (Frame{9, 8}));
    EXPECT_EQ(counters().plain_writes, 1U);
    EXPECT_EQ(counters().unanswered_requests, 0U);
}

TEST_F(CardTest, AnswersRequestsOfNoBytes) {
    ASSERT_EQ(receive(requests::write_ack(0x7040, {})), 1U);
    EXPECT_EQ(field(16, 1), 0U);
    ASSERT_EQ(receive(requests::read(0x7040, 0)), 1U);
    EXPECT_EQ(field(27, 2), 0U);
}

TEST_F(CardTest, AnswersOnlyForItsModelAndSlot) {
    card_->identity = {.model = 1, .slot = 3};
    EXPECT_EQ(receive(requests::build({.model = 1, .slot = 3, .len = 1})), 1U);
    EXPECT_EQ(receive(requests::build({.model = 2, .slot = 3, .len = 1})), 0U);
    EXPECT_EQ(outcome_->disposition, Disposition::kOtherCard);
    EXPECT_EQ(receive(requests::build({.model = 1, .slot = 4, .code = 0x01})), 0U);
    EXPECT_EQ(counters().ignored_other_card, 2U);
    EXPECT_EQ(counters().requests, 1U);
}

TEST_F(CardTest, CountsBadAndForeignFramesAndSendsNothing) {
    Frame checksum = requests::write_ack(0x7040, {1});
    checksum.back() ^= 1;
    Frame type = requests::read(0, 1);
    type[12] = 8;
    Frame markers = requests::read(0, 1);
    std::swap(markers[14], markers[15]);
    Frame foreign = requests::read(0, 1);
    foreign[0] = 0;
    const Frame code = requests::build({.code = 0x10});
    for (const Frame &frame :
         {checksum, type, markers, foreign, code, requests::read(0, 1401), Frame{}}) {
        EXPECT_EQ(receive(frame), 0U);
    }
    EXPECT_EQ(counters().frames, 7U);
    EXPECT_EQ(counters().requests, 0U);
    EXPECT_EQ(counters().bad_frames, 4U);
    EXPECT_EQ(counters().bad_checksum, 1U);
    EXPECT_EQ(counters().bad_type, 1U);
    EXPECT_EQ(counters().bad_code, 1U);
    EXPECT_EQ(counters().bad_length, 1U);
    EXPECT_EQ(counters().ignored_frames, 3U);
    EXPECT_EQ(counters().ignored_markers, 1U);
    EXPECT_EQ(counters().ignored_other_protocol, 2U);
    EXPECT_EQ(stored(0x7040, 1), Frame{0});
}

TEST_F(CardTest, CarriesOutARequestWhoseReplyIsLost) {
    arm({.nth = {{Fault::kDrop, 1}}});
    ASSERT_EQ(receive(requests::write_ack(0x7040, {5}, 1)), 1U);
    EXPECT_EQ(reply().copies, 0U);
    EXPECT_EQ(stored(0x7040, 1), Frame{5});
    EXPECT_EQ(counters().unanswered_requests, 1U);
    ASSERT_EQ(receive(requests::write_ack(0x7040, {5}, 1), 90000), 1U);
    EXPECT_EQ(reply().copies, 1U);
    EXPECT_TRUE(outcome_->resend);
    EXPECT_EQ(counters().resends, 1U);
    EXPECT_EQ(counters().unanswered_requests, 0U);
    EXPECT_EQ(committed(Fault::kDrop), 1U);
}

TEST_F(CardTest, DoesNothingForARequestThatIsLost) {
    arm({.nth = {{Fault::kDropRequest, 1}}});
    EXPECT_EQ(receive(requests::write_ack(0x7040, {5}, 1)), 0U);
    EXPECT_EQ(outcome_->disposition, Disposition::kLostRequest);
    EXPECT_EQ(stored(0x7040, 1), Frame{0});
    EXPECT_EQ(counters().unanswered_requests, 1U);
    EXPECT_EQ(committed(Fault::kDropRequest), 1U);
    EXPECT_EQ(receive(requests::write_ack(0x7040, {5}, 1)), 1U);
    EXPECT_EQ(counters().unanswered_requests, 0U);
}

TEST_F(CardTest, ACorruptReplyIsNoAnswer) {
    arm_always(Fault::kCorrupt);
    ASSERT_EQ(receive(requests::read(0x7040, 4)), 1U);
    EXPECT_FALSE(checksum_right());
    EXPECT_EQ(counters().unanswered_requests, 1U);
    EXPECT_EQ(committed(Fault::kCorrupt), 1U);
}

TEST_F(CardTest, ALostReplySuffersNothingElse) {
    card::FaultConfig config;
    config.rates_ppm.fill(card::kAlways);
    config.rates_ppm[static_cast<size_t>(Fault::kDropRequest)] = 0;
    config.delay_max_us = 10;
    arm(config);
    ASSERT_EQ(receive(requests::read(0x7040, 4)), 2U) << "the noise and the lost reply";
    EXPECT_EQ(reply(0).kind, card::ReplyKind::kNoise);
    EXPECT_EQ(reply(1).copies, 0U);
    EXPECT_EQ(reply(1).delay_us, 0U);
    EXPECT_EQ(committed(Fault::kDrop), 1U);
    EXPECT_EQ(committed(Fault::kCorrupt), 0U);
    EXPECT_EQ(committed(Fault::kDuplicate), 0U);
    EXPECT_EQ(committed(Fault::kDelay), 0U);
}

TEST_F(CardTest, DuplicatesDelaysAndHoldsBack) {
    arm_always(Fault::kDuplicate);
    ASSERT_EQ(receive(requests::read(0, 4)), 1U);
    EXPECT_EQ(reply().copies, 2U);
    card::FaultConfig config;
    config.rates_ppm[static_cast<size_t>(Fault::kDelay)] = card::kAlways;
    config.delay_min_us = config.delay_max_us = 1234;
    arm(config);
    ASSERT_EQ(receive(requests::read(0, 4)), 1U);
    EXPECT_EQ(reply().delay_us, 1234U);
    arm_always(Fault::kReorder);
    ASSERT_EQ(receive(requests::read(0, 4)), 1U);
    EXPECT_TRUE(reply().behind_next);
}

TEST_F(CardTest, RefusesWithAStatusAsOftenAsItIsTold) {
    arm_rule(Fault::kError, 2, 0x05);
    card::memory_write(card_->memory, 0x7040, Frame{1, 2, 3, 4});
    ASSERT_EQ(receive(requests::write_ack(0x7040, {9})), 1U);
    EXPECT_EQ(field(16, 1), 5U);
    EXPECT_EQ(field(22, 1), kAckCode);
    EXPECT_EQ(stored(0x7040, 1), Frame{1}) << "refused, so not written";
    ASSERT_EQ(receive(requests::read(0x7040, 4)), 1U);
    EXPECT_EQ(field(16, 1), 5U);
    EXPECT_EQ(field(27, 2), 0U) << "a refused read carries nothing";
    EXPECT_TRUE(checksum_right());
    ASSERT_EQ(receive(requests::read(0x7040, 4)), 1U);
    EXPECT_EQ(field(16, 1), 0U);
    EXPECT_EQ(payload(), (Frame{1, 2, 3, 4}));
    EXPECT_EQ(committed(Fault::kError), 2U);
}

TEST_F(CardTest, RefusesAReadWithItsDataWhenTold) {
    arm_rule(Fault::kError, 0, 0xFF, true);
    card::memory_write(card_->memory, 0x7040, Frame{1, 2});
    ASSERT_EQ(receive(requests::read(0x7040, 2)), 1U);
    EXPECT_EQ(field(16, 1), 0xFFU);
    EXPECT_EQ(payload(), (Frame{1, 2}));
}

TEST_F(CardTest, StaysSilentButCarriesOut) {
    arm_rule(Fault::kSilence, 1);
    EXPECT_EQ(receive(requests::write_ack(0x7FFF, {6})), 0U);
    EXPECT_EQ(outcome_->disposition, Disposition::kSilent);
    EXPECT_EQ(stored(0x7FFF, 1), Frame{6});
    EXPECT_EQ(receive(requests::write_ack(0x7FFF, {6})), 1U);
    EXPECT_EQ(committed(Fault::kSilence), 1U);
    EXPECT_EQ(counters().resends, 1U);
}

TEST_F(CardTest, LiesAboutTheLengthAndCarriesIt) {
    card::memory_write(card_->memory, 0, Frame{1, 2, 3, 4, 5, 6, 7});
    arm_lie({.relative = true, .amount = 3});
    ASSERT_EQ(receive(requests::read(0, 4)), 1U);
    EXPECT_EQ(payload(), (Frame{1, 2, 3, 4, 5, 6, 7}));
    EXPECT_TRUE(checksum_right());
    arm_lie({.amount = 0});
    ASSERT_EQ(receive(requests::read(0, 4)), 1U);
    EXPECT_EQ(field(27, 2), 0U);
    EXPECT_TRUE(checksum_right());
    arm_lie({.amount = 1400});
    ASSERT_EQ(receive(requests::read(0, 4)), 1U);
    EXPECT_EQ(reply().size, 1431U);
    EXPECT_TRUE(checksum_right());
    EXPECT_EQ(committed(Fault::kLieLength), 3U);
}

TEST_F(CardTest, LiesBeyondTheFrameInTheFieldOnly) {
    arm_lie({.amount = 2000});
    ASSERT_EQ(receive(requests::read(0, 4)), 1U);
    EXPECT_EQ(field(27, 2), 2000U);
    EXPECT_EQ(reply().size, 60U);
    arm_lie({.relative = true, .amount = 0xFFFF});
    ASSERT_EQ(receive(requests::read(0, 4)), 1U);
    EXPECT_EQ(field(27, 2), 0xFFFFU);
    EXPECT_EQ(reply().size, 60U);
    arm_lie({.amount = 100, .field_only = true});
    ASSERT_EQ(receive(requests::read(0, 4)), 1U);
    EXPECT_EQ(field(27, 2), 100U);
    EXPECT_EQ(reply().size, 60U);
}

TEST_F(CardTest, ChangesCodesAndTypeAsTold) {
    arm({.ack_code = 0x10, .read_code = 0x05, .reply_type = 0x0008});
    ASSERT_EQ(receive(requests::write_ack(0, {1})), 1U);
    EXPECT_EQ(field(22, 1), 0x10U);
    EXPECT_EQ(reply().bytes[12], 0x08);
    EXPECT_EQ(reply().bytes[13], 0x00);
    ASSERT_EQ(receive(requests::read(0, 1)), 1U);
    EXPECT_EQ(field(22, 1), 0x05U);
    EXPECT_TRUE(checksum_right());
    EXPECT_EQ(committed(Fault::kAckCode), 1U);
    EXPECT_EQ(committed(Fault::kReadCode), 1U);
    EXPECT_EQ(committed(Fault::kType), 2U);
    arm({.ack_code = 0x11, .read_code = 0x00, .reply_type = 0x0007});
    ASSERT_EQ(receive(requests::write_ack(0, {1}, 9)), 1U);
    EXPECT_EQ(committed(Fault::kAckCode), 1U) << "what it does anyway is no fault";
    EXPECT_EQ(committed(Fault::kType), 2U);
}

TEST_F(CardTest, TellsResendsFromOtherRequests) {
    arm_always(Fault::kDrop);
    const Frame first = requests::write_ack(0x10, {1}, 5);
    receive(first);
    receive(requests::write_ack(0x10, {2}, 5)); // other bytes
    receive(requests::write_ack(0x11, {1}, 5)); // other address
    receive(requests::write_ack(0x10, {1}, 6)); // other number
    receive(first, 0, 1);                       // other link
    EXPECT_EQ(counters().resends, 0U);
    EXPECT_EQ(counters().unanswered_requests, 5U);
    receive(first);
    receive(first);
    EXPECT_EQ(counters().resends, 2U);
    EXPECT_EQ(counters().unanswered_requests, 5U);
    receive(requests::plain_write(0x10, {1}));
    receive(requests::plain_write(0x10, {1}));
    EXPECT_EQ(counters().resends, 2U) << "plain writes are never resent";
}

TEST_F(CardTest, ARequestOfARestartedToolIsNoResend) {
    receive(requests::read(0x7040, 4, 0));
    receive(requests::read(0x7040, 4, 0), 100000);
    EXPECT_EQ(counters().resends, 0U);
    EXPECT_EQ(counters().unanswered_requests, 0U);
}

} // namespace

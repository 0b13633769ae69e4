#include "faults/outbox.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

// Sends into a text: a letter per frame, in capitals when it is only reported as lost.
class OutboxTest : public testing::Test {
protected:
    void put(char name, uint64_t now_us, card::Reply change = {}, size_t link = 0) {
        change.bytes[0] = static_cast<uint8_t>(name);
        change.size = 60;
        if (change.kind == card::ReplyKind::kNoise && name != '-') {
            change.kind = card::ReplyKind::kReadData;
        }
        card::outbox_put(outbox_, link, change, now_us);
    }
    static card::Reply late(uint64_t delay_us) {
        card::Reply reply;
        reply.delay_us = delay_us;
        return reply;
    }
    static card::Reply held() {
        card::Reply reply;
        reply.behind_next = true;
        return reply;
    }
    static card::Reply copies(unsigned count) {
        card::Reply reply;
        reply.copies = count;
        return reply;
    }

    std::string sent_;
    card::Outbox outbox_{[this](size_t link, const card::Reply &reply) {
        const char name = static_cast<char>(reply.bytes[0]);
        sent_ += reply.copies == 0 ? static_cast<char>(name - 'a' + 'A') : name;
        sent_ += link == 0 ? "" : std::to_string(link);
    }};
};

TEST_F(OutboxTest, SendsAtOnceWithoutAFault) {
    put('a', 0);
    put('b', 0);
    EXPECT_EQ(sent_, "ab");
    EXPECT_EQ(card::outbox_next_due(outbox_), std::nullopt);
}

TEST_F(OutboxTest, SendsEachCopyAndReportsALostOneOnce) {
    put('a', 0, copies(2));
    put('b', 0, copies(0));
    EXPECT_EQ(sent_, "aaB");
}

TEST_F(OutboxTest, SendsLateRepliesInTheOrderOfTheirTimes) {
    put('a', 100, late(50));
    put('b', 100, late(20));
    put('c', 100, late(50));
    put('d', 100);
    EXPECT_EQ(sent_, "d");
    EXPECT_EQ(card::outbox_next_due(outbox_), 120U);
    card::outbox_send_due(outbox_, 119);
    EXPECT_EQ(sent_, "d");
    card::outbox_send_due(outbox_, 120);
    EXPECT_EQ(sent_, "db");
    card::outbox_send_due(outbox_, 1000);
    EXPECT_EQ(sent_, "dbac");
    EXPECT_EQ(card::outbox_next_due(outbox_), std::nullopt);
}

TEST_F(OutboxTest, LetsTheNextReplyOvertakeAHeldOne) {
    put('a', 0, held());
    EXPECT_EQ(sent_, "");
    put('b', 10, held());
    EXPECT_EQ(sent_, "ba") << "only one at a time is held";
    put('c', 20, held());
    put('d', 30);
    EXPECT_EQ(sent_, "badc");
    EXPECT_EQ(outbox_.held_count, 2U);
    EXPECT_EQ(outbox_.overtaken_count, 2U);
}

TEST_F(OutboxTest, NeitherNoiseNorLossNorAnotherLinkOvertakes) {
    put('a', 0, held());
    put('-', 1);
    put('b', 2, copies(0));
    put('c', 3, {}, 1);
    EXPECT_EQ(sent_, "-Bc1");
    put('d', 4);
    EXPECT_EQ(sent_, "-Bc1da");
}

TEST_F(OutboxTest, LetsAHeldReplyGoAloneAfterAWhile) {
    put('a', 100, held());
    EXPECT_EQ(card::outbox_next_due(outbox_), 100 + card::kHoldUs);
    card::outbox_send_due(outbox_, 100 + card::kHoldUs);
    EXPECT_EQ(sent_, "a");
    EXPECT_EQ(outbox_.held_count, 1U);
    EXPECT_EQ(outbox_.overtaken_count, 0U);
    put('b', 200 + card::kHoldUs);
    EXPECT_EQ(sent_, "ab");
}

TEST_F(OutboxTest, ALateReplyOvertakesAHeldOneWhenItLeaves) {
    put('a', 0, late(10));
    put('b', 0, held());
    card::outbox_send_due(outbox_, 10);
    EXPECT_EQ(sent_, "ab");
}

} // namespace

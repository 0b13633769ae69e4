#include "faults/recent.h"

#include <gtest/gtest.h>

namespace {

using card::recent_note;

constexpr uint64_t kSecond = 1'000'000;

TEST(Recent, ARepeatIsAResendForASecond) {
    card::RecentRequests recent;
    EXPECT_FALSE(recent_note(recent, 42, 0).resend);
    EXPECT_TRUE(recent_note(recent, 42, 90000).resend);
    EXPECT_TRUE(recent_note(recent, 42, 90000 + kSecond).resend) << "counted from the last one";
    EXPECT_FALSE(recent_note(recent, 42, 90001 + 2 * kSecond).resend);
    EXPECT_FALSE(recent_note(recent, 43, 90000).resend);
}

TEST(Recent, ARepeatOfASettledRequestIsNewSoonAfterTheAnswer) {
    card::RecentRequests recent;
    card::RecentRequest *entry = recent_note(recent, 42, 1000).entry;
    entry->settled = true;
    entry->settled_us = 2000;
    EXPECT_TRUE(recent_note(recent, 42, 2000 + card::kSettledWindowUs).resend);
    const auto again = recent_note(recent, 42, 2001 + card::kSettledWindowUs);
    EXPECT_FALSE(again.resend);
    EXPECT_FALSE(again.entry->settled) << "a new request starts open";
}

TEST(Recent, ForgetsSettledRequestsBeforeOpenOnes) {
    card::RecentRequests recent;
    const uint64_t step = recent.entries.size() / 4; // the same set of the table every time
    EXPECT_FALSE(recent_note(recent, 0, 0).resend);
    for (uint64_t i = 1; i <= 100; i++) {
        card::RecentRequest *entry = recent_note(recent, i * step, i).entry;
        entry->settled = true;
        entry->settled_us = i;
    }
    EXPECT_TRUE(recent_note(recent, 0, 200).resend);
}

} // namespace

#include "eth_raw/eth_raw.h"
#include "log/log.h"
#include "mem/mem.h"
#include "mem/pool_counts.h"
#include "stand_ins/fake_heap.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace {

const mem_block *block_of(uint8_t *buf) {
    return reinterpret_cast<const mem_block *>(buf - 28) - 1;
}

TEST(FrameBuffer, LiesBetweenHeaderAndChecksumInItsBlock) {
    uint8_t *buf = RawMsgBuffGet(1);
    ASSERT_NE(buf, nullptr);
    EXPECT_EQ(RawMsgBuffHeadGet(buf), buf - 28);
    EXPECT_EQ(block_of(buf)->data, buf - 28);
    EXPECT_EQ(block_of(buf)->size, 128U); // the smallest class that holds 94 bytes
    RawMsgBuffFree(buf);
}

TEST(FrameBuffer, IsZeroedWhenItIsHandedOutAgain) {
    uint8_t *buf = RawMsgBuffGet(1400);
    ASSERT_NE(buf, nullptr);
    std::fill(buf - 28, buf + 1402, 0xEE);
    RawMsgFreeBuf(buf);
    uint8_t *again = RawMsgBuffGet(1400);
    ASSERT_EQ(again, buf);
    EXPECT_TRUE(std::all_of(again - 28, again + 1402, [](uint8_t b) { return b == 0; }));
    RawMsgBuffFree(again);
}

TEST(FrameBuffer, HoldsAtMost1400Bytes) {
    EXPECT_EQ(RawMsgBuffGet(1401), nullptr);
    EXPECT_EQ(RawMsgBuffGet(UINT32_MAX), nullptr);
    uint8_t *buf = RawMsgBuffGet(1400);
    EXPECT_NE(buf, nullptr);
    RawMsgBuffFree(buf);
}

TEST(FrameBuffer, GoesBackToThePoolThroughBothNames) {
    const int64_t out = mem_handed_out();
    RawMsgBuffFree(RawMsgBuffGet(0));
    RawMsgFreeBuf(RawMsgBuffGet(7));
    RawMsgBuffFree(nullptr);
    EXPECT_EQ(mem_handed_out(), out);
}

TEST(FrameBuffer, StaysOutWhenTheMinBufferReleaseIsCalled) {
    const int64_t out = mem_handed_out();
    uint8_t *buf = RawMsgBuffGet(1);
    RawMsgMinBuffFree(buf);
    EXPECT_EQ(mem_handed_out(), out + 1);
    RawMsgBuffFree(buf);
}

class MinBuffer : public testing::Test {
protected:
    void SetUp() override {
        log_debug = 1;
        testing::internal::CaptureStdout();
    }
    void TearDown() override {
        (void)testing::internal::GetCapturedStdout();
        log_debug = 0;
        RawMsgUninitMinBuffer();
    }
    static std::string printed() {
        std::string text = testing::internal::GetCapturedStdout();
        testing::internal::CaptureStdout();
        return text;
    }
};

TEST_F(MinBuffer, IsMissingBeforeSetUpEveryTime) {
    EXPECT_EQ(RawMsgMinBuffGet(), nullptr);
    EXPECT_EQ(RawMsgMinBuffGet(), nullptr);
    const std::string text = printed();
    const size_t first = text.find("]:: min buffer is NULL\n");
    ASSERT_NE(first, std::string::npos);
    EXPECT_NE(text.find("]:: min buffer is NULL\n", first + 1), std::string::npos);
}

TEST_F(MinBuffer, StartsAtEntryOneAndWrapsToEntryZero) {
    ASSERT_EQ(RawMsgInitMinBuffer(), 0);
    uint8_t *first = RawMsgMinBuffGet();
    ASSERT_NE(first, nullptr);
    uint8_t *second = RawMsgMinBuffGet();
    const ptrdiff_t entry = second - first;
    EXPECT_EQ(entry, static_cast<ptrdiff_t>(2 * sizeof(void *)));
    EXPECT_EQ(reinterpret_cast<uintptr_t>(first) % sizeof(void *), 28 % sizeof(void *));
    for (int call = 3; call <= 999; call++) {
        ASSERT_NE(RawMsgMinBuffGet(), nullptr) << call;
    }
    EXPECT_EQ(RawMsgMinBuffGet(), first - entry); // the 1000th
    EXPECT_EQ(printed(), "");
    EXPECT_EQ(RawMsgMinBuffGet(), nullptr); // the 1001st
    EXPECT_NE(printed().find("]:: min buffer is not enough\n"), std::string::npos);
}

TEST_F(MinBuffer, IsNotSetUpWithoutMemory) {
    const HeapLimit limit(64);
    EXPECT_EQ(RawMsgInitMinBuffer(), -1);
}

TEST_F(MinBuffer, KeepsAnEntryInUseWhenItIsFreed) {
    ASSERT_EQ(RawMsgInitMinBuffer(), 0);
    for (int call = 1; call <= 1000; call++) {
        RawMsgMinBuffFree(RawMsgMinBuffGet());
    }
    EXPECT_EQ(RawMsgMinBuffGet(), nullptr);
}

TEST_F(MinBuffer, IsFreeAgainAfterASecondSetUp) {
    ASSERT_EQ(RawMsgInitMinBuffer(), 0);
    uint8_t *first = RawMsgMinBuffGet();
    ASSERT_EQ(RawMsgInitMinBuffer(), 0);
    EXPECT_EQ(RawMsgMinBuffGet(), first);
}

} // namespace

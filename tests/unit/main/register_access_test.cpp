// register_access_test.cpp - a register read and a register write in one call, on a played card.
#include "main/main.h"

#include "eth_raw/eth_raw.h"
#include "helpers/log_lines.h"
#include "mem/mem.h"
#include "mem/pool_counts.h"
#include "stand_ins/fake_card.h"
#include "stand_ins/fake_heap.h"

#include <gtest/gtest.h>

#include <vector>

namespace {
std::vector<uint8_t *> g_min_freed;
} // namespace

// Visible outside: a sanitizer's library calls the wrapped names, too.
#pragma GCC visibility push(default)
extern "C" {
void __wrap_RawMsgMinBuffFree(uint8_t *buf);

void __wrap_RawMsgMinBuffFree(uint8_t *buf) {
    g_min_freed.push_back(buf);
}
}
#pragma GCC visibility pop

namespace {

class RegisterAccess : public testing::Test {
protected:
    void SetUp() override {
        card_reset();
        (void)mem_uinit(); // so that memory that runs out is noticed
        handed_out = mem_handed_out();
    }
    void TearDown() override {
        for (uint8_t *buffer : g_min_freed) {
            RawMsgBuffFree(buffer);
        }
        g_min_freed.clear();
        EXPECT_EQ(mem_handed_out(), handed_out);
    }
    [[nodiscard]] int64_t buffers_out() const {
        return mem_handed_out() - handed_out;
    }

    int64_t handed_out = 0;
};

std::string read_log(uint32_t addr, uint32_t len) {
    return test::log_of([&] { read_reg(2, 0x0102, 0x0F, addr, len); });
}

using ReadReg = RegisterAccess;

TEST_F(ReadReg, ReadsAndPrintsWhatCame) {
    card_answers_reads([](const CardCall &) {
        return ReadAnswer{.result = 0, .data = {0xDE, 0xAD, 0xBE, 0xEF, 0x01, 0x02}};
    });
    EXPECT_EQ(read_log(0xABC01230, 6), "|read reg 0xabc01230\n\nabc01230: deadbeef 0102\n");
    EXPECT_EQ(card_calls(), std::vector<CardCall>{read_of(2, 0x0102, 0x0F, 0xABC01230, 6, 6)});
}

TEST_F(ReadReg, PrintsTheDataOfALongerReply) {
    card_answers_reads(
        [](const CardCall &) { return ReadAnswer{.result = 0, .data = Bytes(20, 0x5A)}; });
    EXPECT_EQ(read_log(0x10, 1), "|read reg 0x10\n\n00000010: 5a5a5a5a 5a5a5a5a 5a5a5a5a 5a5a5a5a "
                                 "\n00000020: 5a5a5a5a \n");
}

TEST_F(ReadReg, PrintsAFullReplyAndNothingOfALongerOneWhichIsNotCopied) {
    card_answers_reads(
        [](const CardCall &) { return ReadAnswer{.result = 0, .data = Bytes(1400, 0x5A)}; });
    EXPECT_EQ(test::occurrences(read_log(0, 1400), "5a5a5a5a "), 350); // groups of four
    for (const uint32_t told : {1401U, 0xFFFFU}) {
        card_answers_reads([told](const CardCall &) {
            return ReadAnswer{.result = -1, .data = {}, .told_len = told};
        });
        EXPECT_EQ(read_log(0x20, 1400), "|read reg 0x20\n\n00000020: \n");
    }
}

TEST_F(ReadReg, PrintsTheAddressAloneWhenNothingCame) {
    for (const bool is_sent : {true, false}) {
        card_answers_reads([is_sent](const CardCall &) {
            return ReadAnswer{.result = -1, .data = {}, .is_sent = is_sent};
        });
        EXPECT_EQ(read_log(0x20, 4), "|read reg 0x20\n\n00000020: \n");
    }
}

TEST_F(ReadReg, LetsTheSendOperationJudgeTheLength) {
    card_answers_reads([](const CardCall &) { return ReadAnswer{.result = -1, .data = {}}; });
    (void)read_log(0, 0);
    (void)read_log(0, 0xFFFFFFFF);
    EXPECT_EQ(card_calls(), (std::vector<CardCall>{read_of(2, 0x0102, 0x0F, 0, 0, 6),
                                                   read_of(2, 0x0102, 0x0F, 0, 0xFFFFFFFF, 6)}));
}

TEST_F(ReadReg, ReleasesItsBufferThroughTheMinTable) {
    (void)read_log(0, 4);
    (void)read_log(0, 4);
    EXPECT_EQ(g_min_freed.size(), 2U);
    EXPECT_EQ(buffers_out(), 2);
}

TEST_F(ReadReg, SaysWhenThereIsNoBuffer) {
    const HeapLimit limit(1400);
    EXPECT_EQ(read_log(0x30, 4), "|read reg 0x30\n|RawMsgBuffGet fail\n");
    EXPECT_EQ(card_calls(), std::vector<CardCall>{});
    EXPECT_EQ(g_min_freed.size(), 0U);
}

std::string write_log() {
    return test::log_of([] { write_reg(1, 0xFFFE, 0x80, 0x12345678); });
}

using WriteReg = RegisterAccess;

TEST_F(WriteReg, WritesOneByteAndSaysNothing) {
    EXPECT_EQ(write_log(), "");
    EXPECT_EQ(card_calls(),
              std::vector<CardCall>{acked_write(1, 0xFFFE, 0x80, 0x12345678, {0}, 6)});
}

TEST_F(WriteReg, GivesItsBufferBackWhateverTheCardSays) {
    card_answers_acked_writes(0, 7);
    EXPECT_EQ(write_log(), "");
    card_answers_acked_writes(-1, 255);
    EXPECT_EQ(write_log(), "");
    EXPECT_EQ(card_calls().size(), 2U);
    EXPECT_EQ(buffers_out(), 0);
    EXPECT_EQ(g_min_freed.size(), 0U);
}

TEST_F(WriteReg, SaysWhenThereIsNoBuffer) {
    const HeapLimit limit(1400);
    EXPECT_EQ(write_log(), "|RawMsgBuffGet fail\n");
    EXPECT_EQ(card_calls(), std::vector<CardCall>{});
}

} // namespace

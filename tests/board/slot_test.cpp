// slot_test.cpp - the slot from the environment.
#include "board/board.h"

#include "process.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace {

class Slot : public ::testing::Test {
protected:
    void TearDown() override {
        (void)unsetenv("APCARD_SLOT");
    }
};

int slot_of(const char *text) {
    (void)setenv("APCARD_SLOT", text, 1);
    return apcard_bit_self();
}

TEST_F(Slot, IsZeroWithoutTheVariable) {
    (void)unsetenv("APCARD_SLOT");
    EXPECT_EQ(apcard_bit_self(), 0);
    EXPECT_EQ(slot_of(""), 0);
}

TEST_F(Slot, IsDecimalOrHexadecimal) {
    const struct {
        const char *text;
        int slot;
    } rows[] = {{"0", 0},   {"7", 7},     {"010", 10},   {"255", 255},
                {"0x0", 0}, {"0x1f", 31}, {"0XFF", 255}, {"0x00fe", 254}};
    for (const auto &row : rows) {
        EXPECT_EQ(slot_of(row.text), row.slot) << row.text;
    }
}

TEST_F(Slot, IsReadAfreshEachTime) {
    EXPECT_EQ(slot_of("3"), 3);
    EXPECT_EQ(slot_of("4"), 4);
}

// In a process of its own, as the next one, because the complaint comes once per process.
TEST_F(Slot, IsZeroForAnyOtherText) {
    for (const char *text : {"256", "0x100", "-1", "+1", " 1", "1 ", "0x", "0x-1", "ff", "0x0x1",
                             "99999999999999999999", "0xfffffffffffffffff1", "eth0"}) {
        test::Child child([text] { return slot_of(text) == 0 ? 0 : 1; });
        EXPECT_EQ(child.wait(), 0) << text;
    }
}

TEST_F(Slot, ComplainsOnceAboutInvalidText) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    test::Child child([&ends] {
        (void)dup2(ends[1], STDERR_FILENO);
        const int sum = slot_of("7") + slot_of("twelve") + slot_of("300");
        return sum == 7 ? 0 : 1;
    });
    EXPECT_EQ(child.wait(), 0);
    (void)close(ends[1]);
    char text[512] = {};
    (void)!read(ends[0], text, sizeof text - 1);
    (void)close(ends[0]);
    EXPECT_STREQ(text, "board: read slot from APCARD_SLOT 'twelve': not 0..255, using 0\n");
}

} // namespace

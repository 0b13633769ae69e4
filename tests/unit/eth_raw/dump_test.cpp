#include "helpers/output.h"
#include "main/main.h"

#include <gtest/gtest.h>
#include <numeric>
#include <vector>

namespace {

std::string dump_of(uint32_t count, uint32_t base) {
    std::vector<uint8_t> bytes(count);
    std::iota(bytes.begin(), bytes.end(), uint8_t{0xF0});
    return test::output_of([&] { process_recvbuf(bytes.data(), base, count); });
}

TEST(Dump, PutsTheRestDirectlyBehindTheLastGroup) {
    EXPECT_EQ(dump_of(6, 0x1000), "\n00001000: f0f1f2f3 f4f5\n");
}

TEST(Dump, BeginsEveryFifthGroupOnALineOfItsOwn) {
    EXPECT_EQ(dump_of(20, 0), "\n00000000: f0f1f2f3 f4f5f6f7 f8f9fafb fcfdfeff "
                              "\n00000010: 00010203 \n");
}

TEST(Dump, KeepsTheRestOnTheLineOfAFullGroupOfFour) {
    EXPECT_EQ(dump_of(18, 0x20), "\n00000020: f0f1f2f3 f4f5f6f7 f8f9fafb fcfdfeff 0001\n");
}

TEST(Dump, ShowsUpToThreeBytesWithoutAGroup) {
    EXPECT_EQ(dump_of(1, 3), "\n00000003: f0\n");
    EXPECT_EQ(dump_of(3, 0xDEADBEEF), "\ndeadbeef: f0f1f2\n");
}

TEST(Dump, ShowsTheAddressAloneForNoBytes) {
    const uint8_t byte = 0;
    EXPECT_EQ(test::output_of([&] { process_recvbuf(&byte, 0x1000, 0); }), "\n00001000: \n");
}

TEST(Dump, PrintsNothingForNoData) {
    EXPECT_EQ(test::output_of([] { process_recvbuf(nullptr, 0x1000, 8); }), "");
}

// Log lines of other threads come before or behind it.
TEST(Dump, StaysWholeAmongTheOutputOfOthers) {
    constexpr int kDumps = 50;
    const std::vector<uint8_t> bytes(1400, 0x5A);
    const auto dump = [&bytes] { process_recvbuf(bytes.data(), 0x20, 1400); };
    const std::string whole = test::output_of(dump);
    const std::string text = test::output_among_others([&dump] {
        for (int i = 0; i < kDumps; i++) {
            dump();
        }
    });
    EXPECT_EQ(test::occurrences(text, whole), kDumps);
}

TEST(Dump, WrapsTheAddressAtTheEndOfTheAddressSpace) {
    EXPECT_EQ(dump_of(20, 0xFFFFFFF0), "\nfffffff0: f0f1f2f3 f4f5f6f7 f8f9fafb fcfdfeff "
                                       "\n00000000: 00010203 \n");
}

} // namespace

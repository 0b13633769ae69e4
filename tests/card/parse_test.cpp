#include "run/parse.h"

#include <gtest/gtest.h>

namespace {

TEST(ParseHex, TakesDigitsWithAndWithoutPrefixUpToTheLimit) {
    EXPECT_EQ(card::parse_hex("7040", 0xFFFF), 0x7040U);
    EXPECT_EQ(card::parse_hex("0xFFFFFFFF", 0xFFFFFFFF), 0xFFFFFFFFU);
    EXPECT_EQ(card::parse_hex("0XaB", 0xFF), 0xABU);
    for (const char *wrong : {"", "0x", "10000", "-1", "+1", " 1", "1 ", "g", "0x0x1", "1h"}) {
        EXPECT_EQ(card::parse_hex(wrong, 0xFFFF), std::nullopt) << wrong;
    }
}

TEST(ParseCount, IsDecimalUnlessPrefixed) {
    EXPECT_EQ(card::parse_count("10", 100), 10U);
    EXPECT_EQ(card::parse_count("0x10", 100), 16U);
    EXPECT_EQ(card::parse_count("18446744073709551615", UINT64_MAX), UINT64_MAX);
    for (const char *wrong : {"", "101", "1a", "-1", "18446744073709551616", "0x"}) {
        EXPECT_EQ(card::parse_count(wrong, 100), std::nullopt) << wrong;
    }
}

TEST(ParsePercent, GivesPartsPerMillion) {
    EXPECT_EQ(card::parse_percent("0"), 0U);
    EXPECT_EQ(card::parse_percent("5"), 50000U);
    EXPECT_EQ(card::parse_percent("0.5%"), 5000U);
    EXPECT_EQ(card::parse_percent("0.0001"), 1U);
    EXPECT_EQ(card::parse_percent("99.9999"), 999999U);
    EXPECT_EQ(card::parse_percent("100%"), card::kAlways);
    for (const char *wrong : {"", "%", "101", "100.1", "1.", ".5", "1.00001", "-1", "1e1", "abc"}) {
        EXPECT_EQ(card::parse_percent(wrong), std::nullopt) << wrong;
    }
}

TEST(ParseDuration, KnowsItsUnits) {
    EXPECT_EQ(card::parse_duration("500"), 500U);
    EXPECT_EQ(card::parse_duration("500us"), 500U);
    EXPECT_EQ(card::parse_duration("20ms"), 20000U);
    EXPECT_EQ(card::parse_duration("2s"), 2000000U);
    EXPECT_EQ(card::parse_duration("3600s"), 3600000000U);
    for (const char *wrong : {"", "ms", "1m", "1.5ms", "-1", "3601s", "1 ms"}) {
        EXPECT_EQ(card::parse_duration(wrong), std::nullopt) << wrong;
    }
}

struct RangeCase {
    const char *text;
    uint32_t first;
    uint32_t last;
    uint64_t times;
};

TEST(ParseAddressRange, TakesAllItsForms) {
    constexpr RangeCase kCases[] = {
        {"7040", 0x7040, 0x7040, 0},
        {"0x7040x3", 0x7040, 0x7040, 3},
        {"a0000-a00ff", 0xA0000, 0xA00FF, 0},
        {"0xa0-0xafx12", 0xA0, 0xAF, 12},
        {"any", 0, 0xFFFFFFFF, 0},
        {"anyx2", 0, 0xFFFFFFFF, 2},
        {"0x0x3", 0, 0, 3},
        {"5-5", 5, 5, 0},
    };
    for (const RangeCase &row : kCases) {
        const auto range = card::parse_address_range(row.text);
        ASSERT_TRUE(range) << row.text;
        EXPECT_EQ(range->first, row.first) << row.text;
        EXPECT_EQ(range->last, row.last) << row.text;
        EXPECT_EQ(range->times, row.times) << row.text;
    }
}

TEST(ParseAddressRange, RefusesEverythingElse) {
    for (const char *wrong : {"", "x3", "7040x", "7040x0", "7040x-1", "8-7", "7040-", "-7040",
                              "100000000", "any-5", "7040 ", "7040x3x3", "anything"}) {
        EXPECT_FALSE(card::parse_address_range(wrong)) << wrong;
    }
}

} // namespace

#include "faults/faults.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

namespace {

using card::Fault;
using card::FaultConfig;

FaultConfig with_rate(Fault fault, uint32_t ppm, uint64_t seed = 1) {
    FaultConfig config;
    config.seed = seed;
    config.rates_ppm[static_cast<size_t>(fault)] = ppm;
    return config;
}

std::vector<bool> draws(const FaultConfig &config, Fault fault, size_t count) {
    card::FaultEngine engine = card::make_fault_engine(config);
    std::vector<bool> out(count);
    for (size_t i = 0; i < count; i++) {
        out[i] = card::draw_reply_faults(engine).set.has(fault);
    }
    return out;
}

card::AddressRule rule(Fault fault, uint32_t first, uint32_t last, uint64_t times) {
    card::AddressRule out;
    out.fault = fault;
    out.range = {first, last, times};
    return out;
}

TEST(FaultEngine, RepeatsItselfForASeedAndNotForAnother) {
    const auto first = draws(with_rate(Fault::kDrop, 300000, 7), Fault::kDrop, 200);
    EXPECT_EQ(first, draws(with_rate(Fault::kDrop, 300000, 7), Fault::kDrop, 200));
    EXPECT_NE(first, draws(with_rate(Fault::kDrop, 300000, 8), Fault::kDrop, 200));
}

TEST(FaultEngine, LosesTheSameRepliesWhateverElseIsArmed) {
    FaultConfig config = with_rate(Fault::kDrop, 300000);
    const auto alone = draws(config, Fault::kDrop, 200);
    config.rates_ppm.fill(500000);
    config.rates_ppm[static_cast<size_t>(Fault::kDrop)] = 300000;
    config.delay_max_us = 1000;
    EXPECT_EQ(draws(config, Fault::kDrop, 200), alone);
}

TEST(FaultEngine, KeepsToItsRates) {
    for (const uint32_t ppm : {0U, 10000U, 50000U, 500000U, 990000U, card::kAlways}) {
        card::FaultEngine engine = card::make_fault_engine(with_rate(Fault::kNoise, ppm));
        int hits = 0;
        constexpr int kDraws = 100000;
        for (int i = 0; i < kDraws; i++) {
            hits += card::fault_happens(engine, Fault::kNoise) ? 1 : 0;
        }
        // Six standard deviations at most; none at the ends, which are exact.
        const double share = ppm / 1e6;
        const double expected = kDraws * share;
        EXPECT_NEAR(hits, expected, 6 * std::sqrt(expected * (1 - share))) << ppm;
    }
}

TEST(FaultEngine, CommitsTheOrderedOnesAndNoOthers) {
    FaultConfig config;
    config.nth = {{Fault::kCorrupt, 2}, {Fault::kCorrupt, 5}, {Fault::kDrop, 1}};
    const std::vector<bool> corrupt = {false, true, false, false, true, false};
    EXPECT_EQ(draws(config, Fault::kCorrupt, 6), corrupt);
    const std::vector<bool> drop = {true, false, false, false, false, false};
    EXPECT_EQ(draws(config, Fault::kDrop, 6), drop);
}

TEST(FaultEngine, DrawsDelaysFromTheWholeRange) {
    FaultConfig config = with_rate(Fault::kDelay, card::kAlways);
    config.delay_min_us = 10;
    config.delay_max_us = 13;
    card::FaultEngine engine = card::make_fault_engine(config);
    std::array<int, 4> seen{};
    for (int i = 0; i < 1000; i++) {
        const uint64_t delay_us = card::draw_reply_faults(engine).delay_us;
        ASSERT_GE(delay_us, 10U);
        ASSERT_LE(delay_us, 13U);
        seen[delay_us - 10]++;
    }
    EXPECT_TRUE(std::ranges::all_of(seen, [](int count) { return count > 100; }));
}

TEST(FaultEngine, AlwaysChangesAChecksumThatItCorrupts) {
    card::FaultEngine engine = card::make_fault_engine(with_rate(Fault::kCorrupt, card::kAlways));
    for (int i = 0; i < 200000; i++) {
        ASSERT_NE(card::draw_reply_faults(engine).checksum_change, 0);
    }
}

TEST(AddressRules, HoldFromTheFirstAddressToTheLast) {
    FaultConfig config;
    config.rules = {rule(Fault::kSilence, 0x100, 0x1FF, 0)};
    card::FaultEngine engine = card::make_fault_engine(config);
    EXPECT_EQ(card::apply_rule(engine, Fault::kSilence, 0xFF), nullptr);
    EXPECT_NE(card::apply_rule(engine, Fault::kSilence, 0x100), nullptr);
    EXPECT_NE(card::apply_rule(engine, Fault::kSilence, 0x1FF), nullptr);
    EXPECT_EQ(card::apply_rule(engine, Fault::kSilence, 0x200), nullptr);
    EXPECT_EQ(card::apply_rule(engine, Fault::kError, 0x180), nullptr);
}

TEST(AddressRules, AreUsedUpOneAfterTheOther) {
    FaultConfig config;
    config.rules = {rule(Fault::kError, 5, 5, 2), rule(Fault::kError, 0, 9, 1)};
    config.rules[0].status = 1;
    config.rules[1].status = 2;
    card::FaultEngine engine = card::make_fault_engine(config);
    std::vector<int> statuses;
    for (int i = 0; i < 5; i++) {
        const card::AddressRule *found = card::apply_rule(engine, Fault::kError, 5);
        statuses.push_back(found == nullptr ? 0 : found->status);
    }
    EXPECT_EQ(statuses, (std::vector<int>{1, 1, 2, 0, 0}));
}

TEST(FindRandomFault, KnowsThoseWithARateOnly) {
    EXPECT_EQ(card::find_random_fault("drop"), Fault::kDrop);
    EXPECT_EQ(card::find_random_fault("drop_request"), Fault::kDropRequest);
    EXPECT_EQ(card::find_random_fault("noise"), Fault::kNoise);
    EXPECT_EQ(card::find_random_fault("error"), std::nullopt);
    EXPECT_EQ(card::find_random_fault(""), std::nullopt);
}

} // namespace

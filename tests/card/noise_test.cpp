#include "faults/noise.h"

#include <gtest/gtest.h>

#include <memory>

#include "requests.h"
#include "wire/wire.h"

namespace {

using card::NoiseKind;

// Whether the board could take the frame for a reply.
bool looks_like_reply(card::Bytes frame) {
    return frame.size() >= 31 && frame[0] == 0x44 && frame[6] == 0xEB && frame[14] == 0xAA &&
           frame[15] == 0x55;
}

TEST(Noise, IsNeverAReplyAndFitsOnTheWire) {
    card::FaultEngine engine = card::make_fault_engine({});
    const auto noise = std::make_unique<card::Reply>();
    for (int i = 0; i < 20000; i++) {
        card::make_noise(engine, *noise);
        ASSERT_FALSE(looks_like_reply(noise->frame()));
        ASSERT_GE(noise->size, 14U);
        ASSERT_LE(noise->size, card::wire::kMaxFrame);
        ASSERT_EQ(noise->kind, card::ReplyKind::kNoise);
    }
}

TEST(Noise, HasAllItsKinds) {
    card::FaultEngine engine = card::make_fault_engine({});
    const auto noise = std::make_unique<card::Reply>();
    card::make_noise_of(engine, NoiseKind::kOtherTraffic, *noise);
    EXPECT_NE(noise->bytes[0], 0x44);
    EXPECT_NE(requests::value_at(noise->bytes.data(), 12, 2), 0x0007U);
    card::make_noise_of(engine, NoiseKind::kWrongMarkers, *noise);
    EXPECT_EQ(requests::value_at(noise->bytes.data(), 14, 2), 0xAA55U); // 55 AA on the wire
    EXPECT_EQ(noise->bytes[0], 0x44);
    card::make_noise_of(engine, NoiseKind::kRandomMarkers, *noise);
    EXPECT_NE(noise->bytes[14], 0xAA);
    card::make_noise_of(engine, NoiseKind::kCutShort, *noise);
    EXPECT_LT(noise->size, 29U);
    EXPECT_EQ(noise->bytes[0], 0x44);
}

} // namespace

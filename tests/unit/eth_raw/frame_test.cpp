#include "eth_raw/eth_raw.h"
#include "eth_raw/frame_layout.h"
#include "log/log.h"
#include "stand_ins/fake_wire.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <numeric>

namespace {

struct Unpacked {
    uint8_t ack = 0xA1;
    uint16_t model = 0xA2A2;
    uint8_t slot = 0xA3;
    uint8_t code = 0xA4;
    uint32_t addr = 0xA5A5A5A5;
    uint16_t seq = 0xA6A6;
    uint16_t len = 0xA7A7;
    const uint8_t *payload = nullptr;
};

Unpacked unpack(const Frame &frame) {
    // The copy lies in a block of exactly its size: the address sanitizer sees a read outside.
    const std::vector<uint8_t> exact(frame);
    Unpacked u;
    const uint8_t *payload =
        RawMsgHeaderUnpack(exact.data(), static_cast<uint32_t>(exact.size()), &u.ack, &u.model,
                           &u.slot, &u.code, &u.addr, &u.seq, &u.len);
    u.payload = payload == nullptr ? nullptr : frame.data() + (payload - exact.data());
    return u;
}

Frame pack(uint16_t model, uint8_t slot, uint8_t code, uint32_t addr, uint16_t seq,
           const std::vector<uint8_t> &data, uint16_t len) {
    std::vector<uint8_t> room(28 + std::max<size_t>(data.size(), 64) + 2, 0);
    std::copy(data.begin(), data.end(), room.begin() + 28);
    uint8_t *buf = room.data() + 28;
    const uint32_t frame_len = RawMsgHeaderPack(model, slot, code, addr, seq, &buf, len);
    EXPECT_EQ(buf, room.data());
    return {buf, buf + frame_len};
}

std::string unpack_log(const Frame &frame) {
    log_debug = 1;
    testing::internal::CaptureStdout();
    EXPECT_EQ(unpack(frame).payload, nullptr);
    log_debug = 0;
    return testing::internal::GetCapturedStdout();
}

std::vector<uint8_t> counting(size_t count) {
    std::vector<uint8_t> bytes(count);
    std::iota(bytes.begin(), bytes.end(), uint8_t{1});
    return bytes;
}

TEST(FramePack, PadsAShortWriteTo94Bytes) {
    const Frame frame = pack(1, 3, 0x11, 0x7040, 5, {0x01}, 1);
    ASSERT_EQ(frame.size(), 94U);
    const Frame header = {0xEB, 0x90, 0xEB, 0x90, 0xEB, 0x90, 0x44, 0x44, 0x44, 0x44,
                          0x44, 0x44, 0x07, 0x00, 0x55, 0xAA, 0x01, 0x00, 0x03, 0x05,
                          0x00, 0x11, 0x40, 0x70, 0x00, 0x00, 0x01, 0x00, 0x01};
    EXPECT_TRUE(std::equal(header.begin(), header.end(), frame.begin()));
    EXPECT_TRUE(std::all_of(frame.begin() + 29, frame.end() - 2, [](uint8_t b) { return b == 0; }));
    EXPECT_EQ(frame[92], 0x21);
    EXPECT_EQ(frame[93], 0x56);
}

TEST(FramePack, CarriesOnlyPaddingInAReadOf1400Bytes) {
    const Frame frame = pack(2, 1, 0, 0x000A0000, 7, {}, 1400);
    ASSERT_EQ(frame.size(), 94U);
    const Frame header = {0x02, 0x00, 0x01, 0x07, 0x00, 0x00, 0x00, 0x00, 0x0A, 0x00, 0x78, 0x05};
    EXPECT_TRUE(std::equal(header.begin(), header.end(), frame.begin() + 16));
    EXPECT_TRUE(std::all_of(frame.begin() + 28, frame.end() - 2, [](uint8_t b) { return b == 0; }));
    EXPECT_EQ(frame[92], 0xE6);
    EXPECT_EQ(frame[93], 0x55);
}

TEST(FramePack, GrowsWithThePayloadFrom65BytesOn) {
    EXPECT_EQ(pack(1, 1, 1, 0, 0, counting(63), 63).size(), 94U);
    EXPECT_EQ(pack(1, 1, 1, 0, 0, counting(64), 64).size(), 94U);
    EXPECT_EQ(pack(1, 1, 1, 0, 0, counting(65), 65).size(), 95U);
    EXPECT_EQ(pack(1, 1, 1, 0, 0, counting(1400), 1400).size(), 1430U);
}

TEST(FramePack, WrapsTheChecksumOfALongPayload) {
    const std::vector<uint8_t> data(1400, 0xFF);
    const Frame frame = pack(0xFFFF, 0xFF, 0x11, 0xFFFFFFFF, 0xFFFF, data, 1400);
    // 1400 x 255 payload, 9 x 255 + 0x11 + 0x78 + 0x05 header, 0x5555; modulo 65536
    const unsigned sum = 1400U * 255U + 9U * 255U + 0x11U + 0x78U + 0x05U + 0x5555U;
    EXPECT_EQ(frame[1428] | frame[1429] << 8, static_cast<int>(sum & 0xFFFFU));
}

TEST(FrameUnpack, GivesHeaderAndPayloadOfAReply) {
    const Frame frame = make_reply(5, 0x1234, 0x56, 0x789A, 0x10, 0xDEADBEEF, counting(100));
    const Unpacked u = unpack(frame);
    ASSERT_EQ(u.payload, frame.data() + 29);
    EXPECT_EQ(u.ack, 5);
    EXPECT_EQ(u.model, 0x1234);
    EXPECT_EQ(u.slot, 0x56);
    EXPECT_EQ(u.seq, 0x789A);
    EXPECT_EQ(u.code, 0x10);
    EXPECT_EQ(u.addr, 0xDEADBEEFU);
    EXPECT_EQ(u.len, 100);
}

TEST(FrameUnpack, AcceptsAnyTypeField) {
    Frame frame = make_reply(0, 1, 2, 3, 0, 4, {9});
    frame[12] = 0x08;
    frame[13] = 0x06;
    EXPECT_NE(unpack(frame).payload, nullptr);
}

TEST(FrameUnpack, TakesTheChecksumFromTheEndBehindPadding) {
    Frame frame = make_reply(0, 1, 2, 3, 0, 4, {9});
    frame.insert(frame.end() - 2, 28, 0xCC); // padded to the smallest Ethernet frame, not summed
    EXPECT_NE(unpack(frame).payload, nullptr);
}

TEST(FrameUnpack, RefusesARequestThatIsLoopedBack) {
    Frame frame = make_reply(0, 1, 2, 3, 0, 4, {9});
    std::swap(frame[14], frame[15]);
    EXPECT_EQ(unpack_log(frame), "");
}

TEST(FrameUnpack, RefusesEveryWrongAddressOrMarkerByteSilently) {
    const Frame good = make_reply(0, 1, 2, 3, 0, 4, {9});
    for (const size_t at : {0U, 1U, 2U, 3U, 4U, 5U, 6U, 7U, 8U, 9U, 10U, 11U, 14U, 15U}) {
        Frame frame = good;
        frame[at] = static_cast<uint8_t>(frame[at] ^ 0x01);
        EXPECT_EQ(unpack_log(frame), "") << "byte " << at;
    }
}

TEST(FrameUnpack, LeavesOutputsAloneForAForeignFrame) {
    Frame frame = make_reply(0, 1, 2, 3, 0, 4, {9});
    frame[14] = 0;
    const Unpacked u = unpack(frame);
    EXPECT_EQ(u.ack, 0xA1);
    EXPECT_EQ(u.model, 0xA2A2);
    EXPECT_EQ(u.slot, 0xA3);
    EXPECT_EQ(u.code, 0xA4);
    EXPECT_EQ(u.addr, 0xA5A5A5A5U);
    EXPECT_EQ(u.seq, 0xA6A6);
    EXPECT_EQ(u.len, 0xA7A7);
}

TEST(FrameUnpack, LogsBothSumsOfADamagedReplyAndStillGivesItsHeader) {
    Frame frame = make_reply(0, 1, 2, 3, 0, 4, {9});
    const auto good = static_cast<unsigned>(frame[frame.size() - 2] | frame[frame.size() - 1] << 8);
    frame[frame.size() - 1] = 0x12;
    frame[frame.size() - 2] = 0x34;
    char expected[80];
    snprintf(expected, sizeof expected, "recv packet crc error:0x%x, should be: 0x%x\n", 0x1234U,
             good);
    EXPECT_NE(unpack_log(frame).find(expected), std::string::npos);
    EXPECT_EQ(unpack(frame).addr, 4U);
    EXPECT_EQ(unpack(frame).len, 1);
}

TEST(FrameUnpack, NeverReadsPastAReplyThatClaimsTooMuch) {
    for (const int claimed : {3, 4, 1400, 2000, 65535}) {
        Frame frame = make_reply(0, 1, 2, 3, 0, 4, {9});
        frame[27] = static_cast<uint8_t>(claimed);
        frame[28] = static_cast<uint8_t>(claimed >> 8);
        EXPECT_NE(unpack_log(frame).find("recv packet crc error:0x"), std::string::npos) << claimed;
    }
}

TEST(FrameUnpack, RefusesAClaimPastTheEndEvenWhenTheSumsAgree) {
    // The sum over all that arrived, its own checksum field included, equals that field:
    // 0x5555 + 82 (status) + 3 (length) + 86 (checksum, high byte) = 86 << 8.
    Frame frame = make_reply(82, 0, 0, 0, 0, 0, {});
    frame[27] = 3; // the claim: 29 + 3 is one more than the 31 bytes received
    frame[29] = 0;
    frame[30] = 86;
    ASSERT_EQ(0x5555 + 82 + 3 + 86, 86 << 8);
    EXPECT_NE(unpack_log(frame).find("recv packet crc error:0x"), std::string::npos);
}

TEST(FrameUnpack, RefusesEveryShorterPrefixOfAReply) {
    const Frame good = make_reply(0, 1, 2, 3, 0, 4, counting(40));
    for (size_t size = 0; size < good.size(); size++) {
        const Frame prefix(good.begin(), good.begin() + static_cast<ptrdiff_t>(size));
        const std::string log = unpack_log(prefix);
        EXPECT_EQ(log.find("recv packet crc error") != std::string::npos, size >= 16) << size;
    }
}

TEST(FrameSizes, AreThoseOfTheProtocol) {
    EXPECT_EQ(RawSockMsgHeaderSize(), 13U);
    EXPECT_EQ(RawSockMsgJumboFrameSize(), 1400U);
}

TEST(FieldLayout, StoresAndLoadsLittleEndianAtOddOffsets) {
    uint8_t bytes[8] = {};
    store_le(bytes, {1, 4}, 0x11223344);
    EXPECT_EQ(bytes[1], 0x44);
    EXPECT_EQ(bytes[4], 0x11);
    EXPECT_EQ(bytes[0] | bytes[5], 0);
    EXPECT_EQ(load_le(bytes, {1, 4}), 0x11223344U);
    EXPECT_EQ(load_le(bytes, {2, 2}), 0x2233U);
}

TEST(FieldLayout, SeesGapsAndOverlaps) {
    const Field whole[] = {{0, 2}, {2, 1}};
    const Field gap[] = {{0, 2}, {3, 1}};
    const Field overlap[] = {{0, 2}, {1, 2}};
    EXPECT_TRUE(tiles(whole, 3));
    EXPECT_FALSE(tiles(whole, 4));
    EXPECT_FALSE(tiles(gap, 4));
    EXPECT_FALSE(tiles(overlap, 3));
}

} // namespace

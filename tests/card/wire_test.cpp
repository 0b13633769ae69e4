// Frames of docs/protocol.md, worked out by hand, and everything a request can have wrong.
#include "wire/wire.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>

#include "requests.h"

namespace {

using card::MutableBytes;
using card::wire::Decoded;
using requests::Frame;

// Acknowledged write of 11 22 33 44 to 0x00012340, model 0x0102, slot 5, number 0x0203.
Frame write_frame() {
    Frame frame = {
        0xEB, 0x90, 0xEB, 0x90, 0xEB, 0x90, // destination
        0x44, 0x44, 0x44, 0x44, 0x44, 0x44, // source
        0x07, 0x00,                         // type
        0x55, 0xAA,                         // markers of a request
        0x02, 0x01,                         // model
        0x05,                               // slot
        0x03, 0x02,                         // sequence number
        0x11,                               // code
        0x40, 0x23, 0x01, 0x00,             // address
        0x04, 0x00,                         // length
        0x11, 0x22, 0x33, 0x44,             // data
    };
    frame.resize(28 + 64, 0x00);
    frame.push_back(0x85); // 0x5555 + 0x86 (head) + 0xAA (data) = 0x5685
    frame.push_back(0x56);
    return frame;
}

// The answer to a read of the same four bytes, number 0x0204.
Frame read_reply_frame() {
    Frame frame = {
        0x44, 0x44, 0x44, 0x44, 0x44, 0x44, // destination
        0xEB, 0x90, 0xEB, 0x90, 0xEB, 0x90, // source
        0x07, 0x00,                         // type
        0xAA, 0x55,                         // markers of a reply
        0x00,                               // status
        0x02, 0x01,                         // model
        0x05,                               // slot
        0x04, 0x02,                         // sequence number
        0x00,                               // code
        0x40, 0x23, 0x01, 0x00,             // address
        0x04, 0x00,                         // length
        0x11, 0x22, 0x33, 0x44,             // data
    };
    frame.resize(60 - 2, 0x00);
    frame.push_back(0x75); // 0x5555 + 0x76 (head) + 0xAA (data) = 0x5675
    frame.push_back(0x56);
    return frame;
}

Decoded decode(const Frame &frame) {
    card::wire::Request request;
    return card::wire::decode_request(frame, request);
}

TEST(DecodeRequest, GivesTheFieldsOfTheWorkedExample) {
    const Frame frame = write_frame();
    card::wire::Request request;
    ASSERT_EQ(card::wire::decode_request(frame, request), Decoded::kRequest);
    EXPECT_EQ(request.model, 0x0102);
    EXPECT_EQ(request.slot, 5);
    EXPECT_EQ(request.seq, 0x0203);
    EXPECT_EQ(request.code, 0x11);
    EXPECT_EQ(request.addr, 0x00012340U);
    EXPECT_EQ(request.len, 4);
    EXPECT_EQ(Frame(request.data.begin(), request.data.end()), (Frame{0x11, 0x22, 0x33, 0x44}));
}

TEST(DecodeRequest, RefusesEveryShorterAndLongerFrame) {
    const Frame whole = write_frame();
    for (size_t size = 0; size < whole.size(); size++) {
        const Frame part(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
        EXPECT_NE(decode(part), Decoded::kRequest) << size;
    }
    Frame longer = whole;
    longer.push_back(0);
    EXPECT_EQ(decode(longer), Decoded::kBadLength);
}

TEST(DecodeRequest, NoticesEveryChangedByte) {
    for (size_t at = 0; at < write_frame().size(); at++) {
        Frame frame = write_frame();
        frame[at] ^= 0x20;
        EXPECT_NE(decode(frame), Decoded::kRequest) << at;
    }
}

TEST(DecodeRequest, SaysWhatIsWrong) {
    const auto changed = [](size_t at, uint8_t value) {
        Frame frame = write_frame();
        frame[at] = value;
        return decode(frame);
    };
    EXPECT_EQ(changed(0, 0xFF), Decoded::kOtherProtocol);
    EXPECT_EQ(changed(11, 0x45), Decoded::kOtherProtocol);
    EXPECT_EQ(changed(14, 0xAA), Decoded::kOtherMarkers);
    EXPECT_EQ(changed(12, 0x08), Decoded::kBadType);
    EXPECT_EQ(changed(28, 0x12), Decoded::kBadChecksum);
    EXPECT_EQ(decode(requests::build({.code = 0x10})), Decoded::kBadCode);
    EXPECT_EQ(decode(requests::build({.code = 0x7F})), Decoded::kBadCode);
}

TEST(DecodeRequest, TakesReadsOf1400BytesInAShortFrameAndNoLongerOnes) {
    EXPECT_EQ(requests::read(0, 1400).size(), 94U);
    EXPECT_EQ(decode(requests::read(0, 1400)), Decoded::kRequest);
    EXPECT_EQ(decode(requests::read(0, 1401)), Decoded::kBadLength);
    EXPECT_EQ(decode(requests::read(0, 0)), Decoded::kRequest);
}

TEST(DecodeRequest, TakesWritesOf1400BytesAndNoLongerOnes) {
    EXPECT_EQ(decode(requests::write_ack(0, Frame(1400, 0xFF))), Decoded::kRequest);
    EXPECT_EQ(decode(requests::write_ack(0, Frame(1401, 0xFF))), Decoded::kBadLength);
    EXPECT_EQ(requests::write_ack(0, Frame(65, 1)).size(), 95U);
    EXPECT_EQ(decode(requests::write_ack(0, Frame(65, 1))), Decoded::kRequest);
}

TEST(DecodeRequest, RefusesALengthThatIsNotTheFrames) {
    EXPECT_EQ(decode(requests::build({.code = 0x11, .len = 100}, Frame(80))), Decoded::kBadLength);
    EXPECT_EQ(decode(requests::build({.code = 0x11, .len = 70}, Frame(80))), Decoded::kBadLength);
}

TEST(EncodeReply, GivesTheWorkedExample) {
    const Frame expected = read_reply_frame();
    Frame frame(card::wire::kMaxFrame, 0xEE); // what is not written shows
    std::copy_n(expected.begin() + 29, 4, frame.begin() + 29);
    const card::wire::ReplyHead head = {
        .model = 0x0102, .slot = 5, .code = 0x00, .addr = 0x12340, .seq = 0x0204, .len = 4};
    frame.resize(card::wire::encode_reply(head, 4, frame));
    EXPECT_EQ(frame, expected);
}

TEST(EncodeReply, PadsToSixtyBytesAndKeepsTheChecksumLast) {
    for (const size_t carried : {size_t{0}, size_t{1}, size_t{28}, size_t{29}, size_t{30}}) {
        Frame frame(card::wire::kMaxFrame, 0xEE);
        const card::wire::ReplyHead head = {.len = static_cast<uint16_t>(carried)};
        const size_t size = card::wire::encode_reply(head, carried, frame);
        EXPECT_EQ(size, std::max<size_t>(60, 31 + carried));
        EXPECT_EQ(requests::value_at(frame.data(), size - 2, 2),
                  requests::checksum(frame.data(), 29 + carried));
        EXPECT_TRUE(std::all_of(frame.begin() + static_cast<ptrdiff_t>(29 + carried),
                                frame.begin() + static_cast<ptrdiff_t>(size - 2),
                                [](uint8_t byte) { return byte == 0; }));
    }
}

TEST(EncodeReply, SumsModulo65536) {
    Frame frame(card::wire::kMaxFrame, 0xFF);
    const size_t size = card::wire::encode_reply({.len = 1400}, 1400, frame);
    ASSERT_EQ(size, 1431U);
    EXPECT_EQ(requests::value_at(frame.data(), size - 2, 2),
              requests::checksum(frame.data(), 29 + 1400));
}

TEST(EncodeReply, SumsWhatTheFrameHoldsWhenTheLengthSaysMore) {
    Frame frame(card::wire::kMaxFrame, 0);
    const size_t size = card::wire::encode_reply({.len = 2000}, 4, frame);
    EXPECT_EQ(size, 60U);
    EXPECT_EQ(requests::value_at(frame.data(), 27, 2), 2000U);
    EXPECT_EQ(requests::value_at(frame.data(), size - 2, 2), requests::checksum(frame.data(), 58));
}

TEST(SpoilChecksum, ChangesTheLastTwoBytesOnly) {
    Frame frame = read_reply_frame();
    card::wire::spoil_checksum(frame, 0x0101);
    Frame expected = read_reply_frame();
    expected[58] ^= 0x01;
    expected[59] ^= 0x01;
    EXPECT_EQ(frame, expected);
}

TEST(ByteSum, EqualsTheSimpleSumAtEveryLength) {
    Frame bytes(3000);
    uint32_t state = 1;
    for (uint8_t &byte : bytes) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<uint8_t>(state >> 24);
    }
    for (size_t size = 0; size <= bytes.size(); size += size < 40 ? 1 : 61) {
        const card::Bytes part = card::Bytes(bytes).first(size);
        EXPECT_EQ(card::byte_sum(part),
                  static_cast<uint16_t>(std::accumulate(part.begin(), part.end(), 0U)));
    }
    const Frame full(8192, 0xFF); // lanes that overflowed would show
    EXPECT_EQ(card::byte_sum(full), static_cast<uint16_t>(8192U * 0xFF));
}

TEST(Fingerprint, DiffersForEveryChangedByteAndStart) {
    Frame frame(77, 0);
    const uint64_t before = card::fingerprint(frame, 0);
    EXPECT_NE(card::fingerprint(frame, 1), before);
    for (uint8_t &byte : frame) {
        byte = 1;
        EXPECT_NE(card::fingerprint(frame, 0), before);
        byte = 0;
    }
    frame.push_back(0);
    EXPECT_NE(card::fingerprint(frame, 0), before);
}

} // namespace

// The card's firmware side, request by request.
#include "firmware/firmware_text.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "requests.h"
#include "run/protocols.h"
#include "run/trace.h"

namespace {

using card::Disposition;
using card::Fault;
using card::FirmwareField;
using requests::Frame;

constexpr uint32_t kData = 0x18000000;
constexpr uint8_t kSlot = 3;

Frame little_endian(uint32_t value, size_t size) {
    Frame out;
    for (size_t i = 0; i < size; i++) {
        out.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
    return out;
}

// Bytes that differ from their neighbours.
Frame some_firmware(size_t size) {
    Frame out(size);
    for (size_t i = 0; i < size; i++) {
        out[i] = static_cast<uint8_t>(i * 37 + i / 256 * 11 + 5);
    }
    return out;
}

// What the board puts before a firmware, and the firmware.
Frame image_of(const Frame &firmware) {
    Frame out(256 + firmware.size());
    uint32_t sum = 0x5555;
    for (size_t i = 0; i < firmware.size(); i++) {
        out[256 + i] = firmware[i];
        sum += firmware[i];
    }
    for (size_t i = 0; i < 4; i++) {
        out[i] = static_cast<uint8_t>(firmware.size() >> (8 * i));
    }
    out[130] = static_cast<uint8_t>(sum & 0xFF);
    out[131] = static_cast<uint8_t>(sum >> 8 & 0xFF);
    return out;
}

struct Write {
    const char *name;
    uint32_t addr;
    Frame data;
};

// The seven fields as the board writes them.
std::vector<Write> fields_for(uint32_t total, uint8_t slot = kSlot) {
    return {{"total_files_size", 0x11F00000, little_endian(total, 4)},
            {"files_recv_len", 0x11F00004, {0, 0, 0, 0}},
            {"total_files_count", 0x11F00008, {1, 0, 0, 0}},
            {"current_file_size", 0x11F0000C, little_endian(total, 4)},
            {"v", 0x11F00010, {0}},
            {"device_type", 0x18200000, {0x01, 0x02}},
            {"card_modelid", 0x18200002, {0, 0, slot}}};
}

class FirmwareTest : public testing::Test {
protected:
    void receive(const Frame &frame, uint64_t now_us = 0) {
        const card::Arrival arrival{frame, 0, now_us};
        card::card_receive(*card_, arrival, *outcome_);
        trace_ = card::trace_received("card0", arrival, *outcome_);
    }
    static Frame request(uint32_t addr, const Frame &data, uint16_t seq, uint8_t slot = kSlot,
                         uint16_t model = 0, uint8_t code = 0x11) {
        return requests::build({.model = model,
                                .slot = slot,
                                .seq = seq,
                                .code = code,
                                .addr = addr,
                                .len = static_cast<uint16_t>(data.size())},
                               data);
    }
    // A new request, and the status of its acknowledgement; 256 without one.
    unsigned write(uint32_t addr, const Frame &data, uint8_t slot = kSlot) {
        receive(request(addr, data, ++seq_, slot));
        return status();
    }
    // The very last request once more.
    unsigned write_again(uint32_t addr, const Frame &data, uint8_t slot = kSlot) {
        receive(request(addr, data, seq_, slot));
        return status();
    }
    unsigned status() {
        return outcome_->count == 0 ? 256 : outcome_->replies[outcome_->count - 1].bytes[16];
    }
    // The first `count` fields, or all.
    void send_fields(uint32_t total, size_t count = 7, uint8_t slot = kSlot) {
        const std::vector<Write> fields = fields_for(total, slot);
        for (size_t i = 0; i < count; i++) {
            EXPECT_EQ(write(fields[i].addr, fields[i].data, slot), 0U);
        }
    }
    void send_blocks(const Frame &image, size_t begin = 0, size_t end = SIZE_MAX) {
        end = std::min(end, image.size());
        for (size_t at = begin; at < end; at += 1024) {
            EXPECT_EQ(write(kData, block(image, at)), 0U);
        }
    }
    static Frame block(const Frame &image, size_t at) {
        const size_t size = std::min<size_t>(1024, image.size() - at);
        const auto from = image.begin() + static_cast<ptrdiff_t>(at);
        return {from, from + static_cast<ptrdiff_t>(size)};
    }
    void send_image(const Frame &image) {
        send_fields(static_cast<uint32_t>(image.size()));
        send_blocks(image);
    }
    std::vector<std::string> lines() {
        std::vector<std::string> out;
        for (const card::FirmwareReport &report : reports()) {
            out.push_back(report.line);
        }
        return out;
    }
    std::string last_line() {
        return reports().empty() ? "" : reports().back().line;
    }
    std::vector<card::FirmwareReport> &reports() {
        return card_->firmware.reports;
    }
    const card::Counters &counters() {
        return card_->counters;
    }
    void arm(const card::FaultConfig &config) {
        card_->faults = card::make_fault_engine(config);
    }
    bool traced(const std::string &part) {
        return trace_.find(part) != std::string::npos;
    }

    std::unique_ptr<card::Card> card_ = std::make_unique<card::Card>();
    std::unique_ptr<card::Outcome> outcome_ = std::make_unique<card::Outcome>();
    std::string trace_;
    uint16_t seq_ = 0;
};

using Lines = std::vector<std::string>;

TEST_F(FirmwareTest, TakesAFirmwareOfTwoBlocks) {
    const Frame image = image_of(some_firmware(1025));
    send_fields(1281);
    EXPECT_EQ(counters().firmware_transfers, 1U);
    EXPECT_EQ(counters().firmware_transfer_fields, 7U);
    EXPECT_EQ(write(kData, block(image, 0)), 0U);
    EXPECT_TRUE(reports().empty()) << "not before the last byte";
    EXPECT_EQ(counters().firmware_transfer_blocks, 1U);
    EXPECT_EQ(counters().firmware_transfer_bytes, 1024U);
    EXPECT_EQ(block(image, 1024).size(), 257U);
    EXPECT_EQ(write(kData, block(image, 1024)), 0U);
    ASSERT_EQ(reports().size(), 1U);
    EXPECT_TRUE(reports()[0].complete);
    EXPECT_EQ(reports()[0].image, image);
    EXPECT_EQ(counters().firmware_intact, 1U);
    EXPECT_EQ(counters().firmware_damaged, 0U);
    EXPECT_EQ(counters().firmware_incomplete, 0U);
    EXPECT_EQ(counters().firmware_blocks, 2U);
    EXPECT_EQ(counters().firmware_bytes, 1281U);
    EXPECT_EQ(counters().firmware_transfer_blocks, 2U) << "kept until the next one begins";
    EXPECT_EQ(counters().firmware_transfer_bytes, 1281U);
    EXPECT_EQ(counters().firmware_bad_fields, 0U);
    EXPECT_EQ(counters().firmware_stray_blocks, 0U);
}

TEST_F(FirmwareTest, SaysWhatCame) {
    send_image(image_of({0x01, 0xFF, 0x80}));
    EXPECT_EQ(lines(), (Lines{"firmware: 3 bytes for slot 3, device type 0x0102, checksum 56D5: "
                              "intact"}));
}

TEST_F(FirmwareTest, TakesAFirmwareOfNoBytes) {
    Frame image(256, 0);
    image[130] = 0x55;
    image[131] = 0x55;
    send_image(image);
    EXPECT_EQ(counters().firmware_blocks, 1U);
    EXPECT_EQ(lines(), (Lines{"firmware: 0 bytes for slot 3, device type 0x0102, checksum 5555: "
                              "intact"}));
}

TEST_F(FirmwareTest, TakesALargeFirmwareWithItsSumBeyondSixteenBits) {
    const Frame image = image_of(Frame(300 * 1024 + 7, 0xFF));
    send_image(image);
    EXPECT_EQ(counters().firmware_intact, 1U) << last_line();
    EXPECT_EQ(counters().firmware_blocks, 301U);
    EXPECT_EQ(reports().back().image, image);
}

TEST_F(FirmwareTest, KeepsWhatIsWrittenInTheRegistersToo) {
    const Frame image = image_of(some_firmware(1));
    send_image(image);
    for (const Write &field : fields_for(257)) {
        Frame stored(field.data.size());
        card::memory_read(card_->memory, field.addr, stored);
        EXPECT_EQ(stored, field.data) << field.name;
    }
    Frame stored(257);
    card::memory_read(card_->memory, kData, stored);
    EXPECT_EQ(stored, image);
}

TEST_F(FirmwareTest, TheNextTransferStartsAfresh) {
    const Frame first = image_of(some_firmware(2000));
    const Frame second = image_of(some_firmware(10));
    send_image(first);
    send_fields(266, 1);
    EXPECT_EQ(counters().firmware_transfer_fields, 1U);
    EXPECT_EQ(counters().firmware_transfer_blocks, 0U);
    EXPECT_EQ(counters().firmware_transfer_bytes, 0U);
    const std::vector<Write> fields = fields_for(266);
    for (size_t i = 1; i < fields.size(); i++) {
        write(fields[i].addr, fields[i].data);
    }
    send_blocks(second);
    ASSERT_EQ(reports().size(), 2U);
    EXPECT_EQ(reports()[1].image, second);
    EXPECT_EQ(counters().firmware_intact, 2U);
    EXPECT_EQ(counters().firmware_transfer_blocks, 1U);
    EXPECT_EQ(counters().firmware_transfer_bytes, 266U);
    EXPECT_EQ(counters().firmware_bytes, 2256U + 266U);
}

// ---- fields ----

struct WrongField {
    size_t index; // of the field that is wrong
    Frame data;
    const char *wrong;
};

TEST_F(FirmwareTest, RefusesEachWrongLengthAndValue) {
    const WrongField cases[] = {
        {0, {0, 1, 0}, "3 bytes, expected 4"},
        {0, {0, 1, 0, 0, 0}, "5 bytes, expected 4"},
        {0, {}, "0 bytes, expected 4"},
        {0, Frame(1400, 0), "1400 bytes, expected 4"},
        {0, {0xFF, 0, 0, 0}, "value 255, expected 256 to 268435456"},
        {0, {1, 0, 0, 0x10}, "value 268435457, expected 256 to 268435456"},
        {0, {0xFF, 0xFF, 0xFF, 0xFF}, "value 4294967295, expected 256 to 268435456"},
        {1, {0, 0, 0, 1}, "value 16777216, expected 0"},
        {1, {0, 0, 0}, "3 bytes, expected 4"},
        {2, {0, 0, 0, 0}, "value 0, expected 1"},
        {2, {2, 0, 0, 0}, "value 2, expected 1"},
        {2, {1, 0, 0, 1}, "value 16777217, expected 1"},
        {2, {1}, "1 bytes, expected 4"},
        {3, {2, 5, 0, 0}, "value 1282, expected 1281"},
        {3, {1, 5}, "2 bytes, expected 4"},
        {4, {1}, "value 1, expected 0"},
        {4, {0, 0, 0, 0}, "4 bytes, expected 1"},
        {5, {1}, "1 bytes, expected 2"},
        {5, {1, 2, 0, 0}, "4 bytes, expected 2"},
        {6, {1, 0, 3}, "bytes 01 00 03, expected 00 00 03"},
        {6, {0, 0xA, 3}, "bytes 00 0A 03, expected 00 00 03"},
        {6, {0, 0, 4}, "bytes 00 00 04, expected 00 00 03"},
        {6, {3, 0, 0}, "bytes 03 00 00, expected 00 00 03"},
        {6, {0, 0, 3, 0}, "4 bytes, expected 3"},
    };
    const std::vector<Write> fields = fields_for(1281);
    uint64_t bad = 0;
    for (const WrongField &row : cases) {
        SCOPED_TRACE(row.wrong);
        send_fields(1281, row.index);
        reports().clear();
        EXPECT_EQ(write(fields[row.index].addr, row.data), 0U) << "a register takes anything";
        ASSERT_FALSE(reports().empty());
        EXPECT_EQ(reports()[0].line,
                  std::string("firmware: bad field ") + fields[row.index].name + ": " + row.wrong);
        EXPECT_EQ(counters().firmware_bad_fields, ++bad);
        EXPECT_FALSE(card_->firmware.transfer.running) << "the transfer is over";
    }
}

TEST_F(FirmwareTest, TakesTheSmallestAndTheLargestSize) {
    for (const uint32_t total : {256U, 257U, 268435455U, 268435456U}) {
        send_fields(total);
        EXPECT_EQ(counters().firmware_bad_fields, 0U) << total;
        EXPECT_EQ(card_->firmware.transfer.total, total);
        EXPECT_EQ(card_->firmware.transfer.image.capacity(), 0U) << "room is made as bytes come";
    }
}

TEST_F(FirmwareTest, MakesNoMoreRoomThanAnnounced) {
    const Frame image = image_of(some_firmware(100000));
    send_fields(static_cast<uint32_t>(image.size()));
    send_blocks(image, 0, 2048);
    EXPECT_LE(card_->firmware.transfer.image.capacity(), 4096U);
    send_blocks(image, 2048, size_t{99} * 1024);
    EXPECT_LE(card_->firmware.transfer.image.capacity(), image.size());
}

TEST_F(FirmwareTest, WantsTheFieldsInTheirOrder) {
    const std::vector<Write> fields = fields_for(1281);
    for (size_t sent = 0; sent <= 7; sent++) {
        for (size_t next = 1; next < 7; next++) {
            if (next == sent) {
                continue;
            }
            SCOPED_TRACE(std::to_string(next) + " after " + std::to_string(sent));
            send_fields(1281, sent);
            reports().clear();
            const uint64_t bad = counters().firmware_bad_fields;
            EXPECT_EQ(write(fields[next].addr, fields[next].data), 0U);
            EXPECT_EQ(counters().firmware_bad_fields, bad + 1);
            const std::string reason = sent == 0 ? "no transfer is running"
                                       : sent == 7
                                           ? "blocks were expected"
                                           : std::string(fields[sent].name) + " was expected";
            ASSERT_EQ(reports().size(), sent == 0 ? 1U : 2U);
            EXPECT_EQ(reports()[0].line,
                      std::string("firmware: bad field ") + fields[next].name + ": " + reason);
            EXPECT_FALSE(card_->firmware.transfer.running);
            card_->firmware.last_complaint.clear();
        }
    }
}

TEST_F(FirmwareTest, ABadFieldEndsTheTransferAndBlocksAreStrayThen) {
    const Frame image = image_of(some_firmware(3000));
    send_fields(3256);
    send_blocks(image, 0, 2048);
    write(0x11F00010, {0});
    EXPECT_EQ(lines(), (Lines{"firmware: bad field v: blocks were expected",
                              "firmware: stopped after 2048 of 3256 bytes (2 blocks)"}));
    EXPECT_EQ(counters().firmware_incomplete, 1U);
    send_blocks(image, 2048);
    EXPECT_EQ(counters().firmware_stray_blocks, 2U);
    EXPECT_EQ(counters().firmware_intact + counters().firmware_damaged, 0U);
    EXPECT_EQ(counters().firmware_transfer_blocks, 2U) << "where it stopped";
    EXPECT_EQ(counters().firmware_transfer_bytes, 2048U);
}

TEST_F(FirmwareTest, ABadSizeBeginsNoTransfer) {
    send_fields(1281, 3);
    write(0x11F00000, {0, 0, 0, 0});
    EXPECT_EQ(counters().firmware_transfers, 1U);
    EXPECT_EQ(counters().firmware_incomplete, 1U);
    write(0x11F00004, {0, 0, 0, 0});
    EXPECT_EQ(last_line(), "firmware: bad field files_recv_len: no transfer is running");
}

TEST_F(FirmwareTest, WantsModelZeroAndAcknowledgedWrites) {
    receive(request(0x11F00000, {1, 5, 0, 0}, 1, kSlot, 0x0102));
    EXPECT_EQ(last_line(), "firmware: bad field total_files_size: model 0102, expected 0000");
    receive(request(0x11F00000, {1, 5, 0, 0}, 2, kSlot, 0, 0x01));
    EXPECT_EQ(last_line(),
              "firmware: bad field total_files_size: a plain write, expected an acknowledged one");
    EXPECT_EQ(outcome_->disposition, Disposition::kWritten);
    EXPECT_EQ(counters().firmware_bad_fields, 2U);
    EXPECT_EQ(counters().firmware_transfers, 0U);
    send_fields(1281);
    receive(request(kData, Frame(1024, 1), 3, kSlot, 1));
    EXPECT_EQ(last_line(), "firmware: stray block of 1024 bytes: model 0001, expected 0000");
    receive(request(kData, Frame(1024, 1), 4, kSlot, 0, 0x01));
    EXPECT_EQ(last_line(),
              "firmware: stray block of 1024 bytes: a plain write, expected an acknowledged one");
    EXPECT_EQ(counters().firmware_stray_blocks, 2U);
    EXPECT_EQ(counters().firmware_blocks, 0U);
}

TEST_F(FirmwareTest, TheOtherFieldsAreForTheSlotOfTheFirst) {
    for (size_t sent = 1; sent < 7; sent++) {
        SCOPED_TRACE(sent);
        send_fields(1281, sent);
        reports().clear();
        const Write field = fields_for(1281, 4)[sent];
        write(field.addr, field.data, 4);
        ASSERT_FALSE(reports().empty());
        EXPECT_EQ(reports()[0].line, std::string("firmware: bad field ") + field.name +
                                         ": for slot 4, the transfer is for slot 3");
    }
    EXPECT_EQ(counters().firmware_bad_fields, 6U);
}

TEST_F(FirmwareTest, ReadsAndNeighbouringRegistersMeanNothing) {
    send_fields(1281);
    receive(requests::build({.model = 0, .slot = kSlot, .seq = 9, .addr = kData, .len = 16}));
    receive(requests::build({.model = 0, .slot = kSlot, .seq = 10, .addr = 0x11F00010, .len = 1}));
    for (const uint32_t addr : {kData + 1, kData - 1, 0x11F00001U, 0x11F00014U, 0x18200001U}) {
        write(addr, {1, 2, 3, 4});
    }
    EXPECT_TRUE(reports().empty());
    EXPECT_EQ(counters().firmware_bad_fields + counters().firmware_stray_blocks, 0U);
    EXPECT_TRUE(card_->firmware.transfer.running);
}

// ---- blocks ----

TEST_F(FirmwareTest, BlocksBeforeAllFieldsCameAreStray) {
    const Frame image = image_of(some_firmware(100));
    write(kData, image);
    EXPECT_EQ(last_line(), "firmware: stray block of 356 bytes: no transfer is running");
    for (size_t sent = 1; sent < 7; sent++) {
        send_fields(356, sent);
        write(kData, image);
        EXPECT_EQ(last_line(), std::string("firmware: stray block of 356 bytes: ") +
                                   fields_for(356)[sent].name + " was expected");
    }
    EXPECT_EQ(counters().firmware_stray_blocks, 7U);
    EXPECT_EQ(counters().firmware_bytes, 0U);
}

TEST_F(FirmwareTest, AStrayBlockAmongTheFieldsLeavesTheTransferAlone) {
    const Frame image = image_of(some_firmware(100));
    const std::vector<Write> fields = fields_for(356);
    send_fields(356, 6);
    write(kData, image);
    write(fields[6].addr, fields[6].data);
    send_blocks(image);
    EXPECT_EQ(counters().firmware_stray_blocks, 1U);
    EXPECT_EQ(counters().firmware_intact, 1U);
}

TEST_F(FirmwareTest, MoreBytesThanAnnouncedAreStray) {
    const Frame image = image_of(some_firmware(1025));
    send_fields(1281);
    write(kData, block(image, 0));
    write(kData, Frame(258, 0));
    EXPECT_EQ(last_line(), "firmware: stray block of 258 bytes: only 257 bytes are missing");
    EXPECT_EQ(counters().firmware_transfer_bytes, 1024U);
    write(kData, {});
    EXPECT_EQ(last_line(), "firmware: stray block of 0 bytes: no bytes");
    write(kData, block(image, 1024));
    EXPECT_EQ(counters().firmware_intact, 1U);
    write(kData, {1});
    EXPECT_EQ(last_line(), "firmware: stray block of 1 bytes: no transfer is running");
    EXPECT_EQ(counters().firmware_stray_blocks, 3U);
    EXPECT_EQ(counters().firmware_bytes, 1281U);
}

TEST_F(FirmwareTest, BlocksOfAnotherSlotAreStray) {
    const Frame image = image_of(some_firmware(1025));
    send_fields(1281);
    write(kData, block(image, 0));
    write(kData, Frame(257, 9), 12);
    EXPECT_EQ(last_line(),
              "firmware: stray block of 257 bytes: for slot 12, the transfer is for slot 3");
    write(kData, block(image, 1024));
    EXPECT_EQ(counters().firmware_stray_blocks, 1U);
    EXPECT_EQ(counters().firmware_intact, 1U);
}

TEST_F(FirmwareTest, SaysTheSameComplaintOnceInARow) {
    for (int i = 0; i < 5; i++) {
        write(kData, Frame(1024, 1));
    }
    EXPECT_EQ(counters().firmware_stray_blocks, 5U);
    EXPECT_EQ(reports().size(), 1U);
    write(kData, {1});
    EXPECT_EQ(reports().size(), 2U) << "another one";
    send_fields(1281);
    reports().clear();
    write(kData, {1}, 4);
    write(kData, {1}, 4);
    write(kData, {1});
    write(kData, {1}, 4);
    EXPECT_EQ(reports().size(), 2U) << "a block was taken in between";
    send_fields(1281, 1);
    reports().clear();
    write(0x11F00010, {0});
    send_fields(1281, 1);
    write(0x11F00010, {0});
    EXPECT_EQ(reports().size(), 4U) << "something good came in between";
}

TEST_F(FirmwareTest, KeepsABoundedNumberOfLinesThatNobodyTakes) {
    for (unsigned i = 0; i < 5000; i++) {
        write(kData, Frame(1 + i % 2, 1));
    }
    EXPECT_EQ(counters().firmware_stray_blocks, 5000U);
    EXPECT_EQ(reports().size(), 4096U);
    send_image(image_of({}));
    EXPECT_EQ(counters().firmware_intact, 1U);
    EXPECT_EQ(reports().size(), 4096U);
    EXPECT_EQ(counters().firmware_save_errors, 1U);
}

TEST_F(FirmwareTest, KeepsABoundedNumberOfBytesThatNobodyTakes) {
    card_->firmware.max_waiting_bytes = 2600;
    const Frame image = image_of(some_firmware(1000));
    for (int i = 0; i < 3; i++) {
        send_image(image);
    }
    ASSERT_EQ(reports().size(), 3U);
    EXPECT_EQ(reports()[1].image, image);
    EXPECT_TRUE(reports()[2].complete);
    EXPECT_TRUE(reports()[2].image.empty());
    reports().clear();
    send_image(image);
    EXPECT_EQ(reports()[0].image, image);
    EXPECT_EQ(counters().firmware_intact, 4U);
}

TEST_F(FirmwareTest, KeepsNoBytesWhenNobodyWantsThem) {
    card_->firmware.keep_images = false;
    send_image(image_of(some_firmware(5000)));
    ASSERT_EQ(reports().size(), 1U);
    EXPECT_TRUE(reports()[0].image.empty());
    EXPECT_EQ(counters().firmware_intact, 1U);
}

// ---- what came ----

TEST_F(FirmwareTest, TellsEachWrongByteOfTheHead) {
    const Frame good = image_of(some_firmware(100));
    for (size_t i = 0; i < 256; i++) {
        SCOPED_TRACE(i);
        Frame image = good;
        image[i] ^= 0x40;
        send_image(image);
        EXPECT_EQ(counters().firmware_damaged, i + 1);
        const std::string line = last_line();
        if (i < 4) {
            EXPECT_NE(line.find(": damaged: the head says "), std::string::npos) << line;
        } else if (i == 130 || i == 131) {
            EXPECT_NE(line.find(": damaged: the bytes give checksum "), std::string::npos) << line;
        } else {
            EXPECT_NE(line.find(": damaged: byte " + std::to_string(i) +
                                " of the head is 40, expected 00"),
                      std::string::npos)
                << line;
        }
    }
    EXPECT_EQ(counters().firmware_intact, 0U);
}

TEST_F(FirmwareTest, TellsAWrongSizeAndAWrongChecksum) {
    Frame image = image_of({1, 2, 3});
    image[0] = 2;
    send_image(image);
    EXPECT_EQ(last_line(), "firmware: 3 bytes for slot 3, device type 0x0102, checksum 555B: "
                           "damaged: the head says 2 bytes");
    image = image_of({1, 2, 3});
    image[258] = 4;
    send_image(image);
    EXPECT_EQ(last_line(), "firmware: 3 bytes for slot 3, device type 0x0102, checksum 555B: "
                           "damaged: the bytes give checksum 555C");
    EXPECT_EQ(counters().firmware_damaged, 2U);
    EXPECT_EQ(reports().back().image, image) << "it can be saved all the same";
}

TEST_F(FirmwareTest, TellsEachWrongByteOfTheFirmware) {
    const Frame good = image_of(some_firmware(300));
    for (size_t i = 256; i < good.size(); i++) {
        Frame image = good;
        image[i] = static_cast<uint8_t>(image[i] + 1);
        send_image(image);
        EXPECT_EQ(counters().firmware_damaged, i - 255);
    }
}

// ---- stops and new starts ----

TEST_F(FirmwareTest, ANewStartStopsTheTransferBefore) {
    const Frame image = image_of(some_firmware(5000));
    send_fields(5256);
    send_blocks(image, 0, 3072);
    send_image(image);
    EXPECT_EQ(counters().firmware_transfers, 2U);
    EXPECT_EQ(counters().firmware_incomplete, 1U);
    EXPECT_EQ(counters().firmware_intact, 1U);
    ASSERT_EQ(reports().size(), 2U);
    EXPECT_EQ(reports()[0].line, "firmware: stopped after 3072 of 5256 bytes (3 blocks)");
    EXPECT_FALSE(reports()[0].complete);
    EXPECT_EQ(reports()[1].image, image);
    EXPECT_EQ(counters().firmware_bad_fields, 0U);
}

TEST_F(FirmwareTest, ANewStartForAnotherSlotStopsItToo) {
    send_fields(1281, 7, 3);
    send_fields(300, 1, 4);
    EXPECT_EQ(lines(), (Lines{"firmware: stopped after 0 of 1281 bytes (0 blocks)"}));
    EXPECT_EQ(card_->firmware.transfer.slot, 4);
}

TEST_F(FirmwareTest, TheEndSaysWhereATransferStopped) {
    const Frame image = image_of(some_firmware(4194304));
    send_fields(4194560);
    send_blocks(image, 0, 123904);
    card::firmware_end(card_->firmware, card_->counters);
    EXPECT_EQ(lines(), (Lines{"firmware: stopped after 123904 of 4194560 bytes (121 blocks)"}));
    EXPECT_EQ(counters().firmware_incomplete, 1U);
    EXPECT_EQ(counters().firmware_transfer_blocks, 121U);
    EXPECT_EQ(counters().firmware_transfer_bytes, 123904U);
    card::firmware_end(card_->firmware, card_->counters);
    EXPECT_EQ(counters().firmware_incomplete, 1U) << "once";
}

TEST_F(FirmwareTest, TheEndSaysWhichFieldDidNotCome) {
    for (size_t sent = 1; sent < 7; sent++) {
        send_fields(1281, sent);
        card::firmware_end(card_->firmware, card_->counters);
        EXPECT_EQ(last_line(), std::string("firmware: stopped after 0 of 1281 bytes (0 blocks), "
                                           "before field ") +
                                   fields_for(1281)[sent].name);
        EXPECT_EQ(counters().firmware_transfer_fields, sent);
    }
}

TEST_F(FirmwareTest, TheEndHasNothingToSayAfterACompleteTransfer) {
    card::firmware_end(card_->firmware, card_->counters);
    send_image(image_of({1}));
    reports().clear();
    card::firmware_end(card_->firmware, card_->counters);
    EXPECT_TRUE(reports().empty());
    EXPECT_EQ(counters().firmware_incomplete, 0U);
}

// ---- resends, lost requests, lost replies ----

TEST_F(FirmwareTest, TakesARepeatedRequestOnce) {
    const Frame image = image_of(some_firmware(1025));
    for (const Write &field : fields_for(1281)) {
        write(field.addr, field.data);
        EXPECT_EQ(write_again(field.addr, field.data), 0U);
    }
    for (const size_t at : {size_t{0}, size_t{1024}}) {
        write(kData, block(image, at));
        EXPECT_EQ(write_again(kData, block(image, at)), 0U);
        EXPECT_EQ(write_again(kData, block(image, at)), 0U);
    }
    EXPECT_EQ(counters().firmware_repeats, 11U);
    EXPECT_EQ(counters().firmware_transfers, 1U);
    EXPECT_EQ(counters().firmware_blocks, 2U);
    EXPECT_EQ(counters().firmware_intact, 1U);
    EXPECT_EQ(counters().firmware_bad_fields + counters().firmware_stray_blocks, 0U);
    EXPECT_EQ(reports().size(), 1U);
}

TEST_F(FirmwareTest, TakesABlockOnceThatIsRepeatedBehindTheNextOne) {
    const Frame image = image_of(some_firmware(3000));
    send_fields(3256);
    send_blocks(image, 0, 2048);
    receive(request(kData, block(image, 0), static_cast<uint16_t>(seq_ - 1)));
    EXPECT_EQ(counters().firmware_repeats, 1U);
    send_blocks(image, 2048);
    EXPECT_EQ(counters().firmware_intact, 1U);
}

TEST_F(FirmwareTest, TakesEqualBlocksOfDifferentNumbers) {
    const Frame image = image_of(Frame(8192 - 256, 0));
    send_fields(8192);
    send_blocks(image);
    EXPECT_EQ(counters().firmware_blocks, 8U);
    EXPECT_EQ(counters().firmware_intact, 1U);
    EXPECT_EQ(counters().firmware_repeats, 0U);
}

TEST_F(FirmwareTest, ARequestWhoseReplyIsLostWasReceived) {
    const Frame image = image_of(some_firmware(1025));
    arm({.nth = {{Fault::kDrop, 8}}});
    send_fields(1281);
    write(kData, block(image, 0));
    EXPECT_EQ(outcome_->replies[0].copies, 0U) << "the reply is lost";
    EXPECT_EQ(counters().firmware_transfer_blocks, 1U);
    write_again(kData, block(image, 0));
    EXPECT_EQ(outcome_->replies[0].copies, 1U);
    write(kData, block(image, 1024));
    EXPECT_EQ(counters().firmware_intact, 1U);
    EXPECT_EQ(counters().firmware_repeats, 1U);
}

TEST_F(FirmwareTest, ALostRequestWasNotReceived) {
    const Frame image = image_of(some_firmware(1025));
    arm({.nth = {{Fault::kDropRequest, 8}}});
    send_fields(1281);
    EXPECT_EQ(write(kData, block(image, 0)), 256U);
    EXPECT_EQ(outcome_->disposition, Disposition::kLostRequest);
    EXPECT_TRUE(traced(" = firmware block 1 -> treated as lost")) << trace_;
    EXPECT_EQ(counters().firmware_transfer_blocks, 0U);
    EXPECT_EQ(write_again(kData, block(image, 0)), 0U);
    EXPECT_EQ(counters().firmware_transfer_blocks, 1U) << "the resend is the first to arrive";
    write(kData, block(image, 1024));
    EXPECT_EQ(counters().firmware_intact, 1U);
    EXPECT_EQ(counters().firmware_repeats, 0U);
}

TEST_F(FirmwareTest, ASilentlyTakenBlockWasReceived) {
    const Frame image = image_of(some_firmware(1025));
    card::AddressRule rule;
    rule.fault = Fault::kSilence;
    rule.range = {.first = kData, .last = kData, .times = 1};
    arm({.rules = {rule}});
    send_fields(1281);
    EXPECT_EQ(write(kData, block(image, 0)), 256U);
    EXPECT_EQ(counters().firmware_transfer_blocks, 1U);
    EXPECT_EQ(write(kData, block(image, 1024)), 0U);
    EXPECT_EQ(counters().firmware_intact, 1U);
}

TEST_F(FirmwareTest, ASenderThatIsStartedAgainAtOnceIsTakenForANewOne) {
    // Same numbers, same bytes, within the time of a resend.
    const Frame image = image_of(some_firmware(3000));
    send_fields(3256);
    send_blocks(image, 0, 2048);
    seq_ = 0;
    send_image(image);
    EXPECT_EQ(counters().firmware_transfers, 2U);
    EXPECT_EQ(counters().firmware_repeats, 0U);
    EXPECT_EQ(counters().firmware_intact, 1U);
    EXPECT_EQ(lines()[0], "firmware: stopped after 2048 of 3256 bytes (2 blocks)");
}

TEST_F(FirmwareTest, ASenderThatIsStartedAgainAfterARefusalIsTakenForANewOne) {
    card_->firmware.refusals = {{.field = FirmwareField::kFilesRecvLen, .status = 5}};
    const std::vector<Write> fields = fields_for(1281);
    write(fields[0].addr, fields[0].data);
    EXPECT_EQ(write(fields[1].addr, fields[1].data), 5U);
    seq_ = 0;
    write(fields[0].addr, fields[0].data);
    EXPECT_EQ(counters().firmware_transfers, 2U);
    EXPECT_EQ(counters().firmware_incomplete, 1U);
}

TEST_F(FirmwareTest, ASpoiltFrameIsNoBlock) {
    const Frame image = image_of(some_firmware(100));
    send_fields(356);
    Frame frame = request(kData, image, ++seq_);
    frame[40] ^= 1;
    receive(frame);
    EXPECT_EQ(outcome_->disposition, Disposition::kBadChecksum);
    EXPECT_EQ(counters().firmware_blocks, 0U);
    EXPECT_EQ(counters().firmware_stray_blocks, 0U);
}

// ---- refusals ----

TEST_F(FirmwareTest, RefusesEachField) {
    const std::vector<Write> fields = fields_for(1281);
    for (size_t i = 0; i < 7; i++) {
        SCOPED_TRACE(fields[i].name);
        card_ = std::make_unique<card::Card>();
        card_->firmware.refusals = {
            {.field = static_cast<FirmwareField>(i), .status = static_cast<uint8_t>(0x20 + i)}};
        send_fields(1281, i);
        EXPECT_EQ(write(fields[i].addr, fields[i].data), 0x20 + i);
        EXPECT_EQ(outcome_->disposition, Disposition::kRefused);
        EXPECT_EQ(write_again(fields[i].addr, fields[i].data), 0x20 + i) << "as often as it comes";
        EXPECT_EQ(counters().faults[static_cast<size_t>(Fault::kError)], 2U);
        EXPECT_EQ(counters().firmware_transfer_fields, i);
        EXPECT_EQ(counters().firmware_bad_fields, 0U);
        Frame stored(fields[i].data.size(), 0xEE);
        card::memory_read(card_->memory, fields[i].addr, stored);
        EXPECT_EQ(stored, Frame(fields[i].data.size(), 0)) << "not carried out";
        // Taken once it is no longer refused: the refused one left nothing behind.
        card_->firmware.refusals.clear();
        EXPECT_EQ(write_again(fields[i].addr, fields[i].data), 0U);
        EXPECT_EQ(counters().firmware_transfer_fields, i + 1);
        EXPECT_EQ(counters().firmware_repeats, 0U);
    }
}

TEST_F(FirmwareTest, RefusesEachBlock) {
    const Frame image = image_of(some_firmware(4000));
    for (uint64_t n = 1; n <= 5; n++) {
        SCOPED_TRACE(n);
        card_ = std::make_unique<card::Card>();
        card_->firmware.refusals = {{.block = n, .status = 0xFE}};
        const size_t at = (n - 1) * 1024;
        send_fields(4256);
        send_blocks(image, 0, at);
        EXPECT_EQ(write(kData, block(image, at)), 0xFEU);
        EXPECT_EQ(write_again(kData, block(image, at)), 0xFEU);
        EXPECT_EQ(counters().firmware_transfer_blocks, n - 1);
        EXPECT_EQ(counters().firmware_transfer_bytes, at);
        send_fields(4256);
        send_blocks(image, 0, at);
        EXPECT_EQ(write(kData, block(image, at)), 0xFEU) << "of every transfer";
        EXPECT_EQ(counters().firmware_incomplete, 1U);
        EXPECT_EQ(last_line(), "firmware: stopped after " + std::to_string(at) +
                                   " of 4256 bytes (" + std::to_string(n - 1) + " blocks)");
        EXPECT_EQ(counters().faults[static_cast<size_t>(Fault::kError)], 3U);
        card_->firmware.refusals.clear();
        EXPECT_EQ(write_again(kData, block(image, at)), 0U);
        send_blocks(image, at + 1024);
        EXPECT_EQ(counters().firmware_intact, 1U);
    }
}

TEST_F(FirmwareTest, RefusesNoRepeatOfABlockThatItTook) {
    const Frame image = image_of(some_firmware(4000));
    card_->firmware.refusals = {{.block = 2, .status = 9}};
    send_fields(4256);
    send_blocks(image, 0, 1024);
    EXPECT_EQ(write_again(kData, block(image, 0)), 0U);
    EXPECT_EQ(write(kData, block(image, 1024)), 9U);
}

TEST_F(FirmwareTest, RefusesNoStrayBlockAndNoRead) {
    card_->firmware.refusals = {{.block = 1, .status = 9},
                                {.field = FirmwareField::kV, .status = 8}};
    EXPECT_EQ(write(kData, Frame(1024, 1)), 0U) << "of no transfer";
    send_fields(1281, 4);
    EXPECT_EQ(write(kData, Frame(1024, 1)), 0U) << "before its time";
    receive(requests::build({.model = 0, .slot = kSlot, .seq = 99, .addr = 0x11F00010, .len = 1}));
    EXPECT_EQ(status(), 0U);
    EXPECT_EQ(outcome_->disposition, Disposition::kAnswered);
    EXPECT_EQ(counters().firmware_stray_blocks, 2U);
}

TEST_F(FirmwareTest, RulesForAddressesComeBeforeItsOwn) {
    card::AddressRule rule;
    rule.fault = Fault::kError;
    rule.range = {.first = 0x11F00010, .last = 0x11F00010, .times = 1};
    rule.status = 0x44;
    arm({.rules = {rule}});
    card_->firmware.refusals = {{.field = FirmwareField::kV, .status = 8}};
    send_fields(1281, 4);
    EXPECT_EQ(write(0x11F00010, {0}), 0x44U);
    EXPECT_EQ(write(0x11F00010, {0}), 8U);
    EXPECT_EQ(counters().firmware_transfer_fields, 4U);
}

// ---- which card ----

TEST_F(FirmwareTest, ACardOfAnotherSlotOrModelHearsNothing) {
    card_->identity.slot = 4;
    send_fields(1281, 0);
    receive(request(0x11F00000, {1, 5, 0, 0}, 1, 3));
    EXPECT_EQ(outcome_->disposition, Disposition::kOtherCard);
    EXPECT_EQ(counters().firmware_transfers, 0U);
    receive(request(0x11F00000, {1, 5, 0, 0}, 2, 4));
    EXPECT_EQ(counters().firmware_transfers, 1U);
    card_->identity = {.model = 5};
    receive(request(0x11F00004, {0, 0, 0, 0}, 3, 4));
    EXPECT_EQ(outcome_->disposition, Disposition::kOtherCard);
    EXPECT_EQ(counters().firmware_transfer_fields, 1U);
}

// ---- trace ----

TEST_F(FirmwareTest, TheTraceSaysWhatARequestMeans) {
    const Frame image = image_of(some_firmware(2000));
    for (const Write &field : fields_for(2256)) {
        write(field.addr, field.data);
        EXPECT_TRUE(traced(std::string(" = firmware field ") + field.name + " -> carried out"))
            << trace_;
    }
    write_again(0x18200002, {0, 0, kSlot});
    EXPECT_TRUE(traced(" = firmware field card_modelid, repeated -> carried out, a resend"))
        << trace_;
    write(kData, block(image, 0));
    EXPECT_TRUE(traced(" = firmware block 1 -> carried out")) << trace_;
    write(kData, block(image, 1024));
    EXPECT_TRUE(traced(" = firmware block 2 -> carried out")) << trace_;
    write_again(kData, block(image, 1024));
    EXPECT_TRUE(traced(" = firmware block, repeated -> carried out, a resend")) << trace_;
    write(kData, Frame(1024, 1), 9);
    EXPECT_TRUE(traced(" = firmware block, stray -> carried out")) << trace_;
    write(0x18000004, {1});
    EXPECT_FALSE(traced(" = ")) << trace_;
}

} // namespace

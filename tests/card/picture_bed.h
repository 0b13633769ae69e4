// picture_bed.h - a card without sockets, and the requests that its picture side knows.
#ifndef TESTS_CARD_PICTURE_BED_H
#define TESTS_CARD_PICTURE_BED_H

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "requests.h"
#include "run/protocols.h"

namespace picture_bed {

using requests::Frame;

/** The registers of one DDR2 memory, with numbers of the tests' own. */
struct Registers {
    uint32_t data;
    uint32_t move;
    uint32_t command;
    uint32_t start;
    uint32_t status;
};
constexpr Registers kRegisters[2] = {{0xB0000, 0xA0001, 0xA0008, 0xA00FF, 0xA0FFD},
                                     {0xF0000, 0xE0001, 0xE0008, 0xE00FF, 0xE0FFD}};

/** Bytes that differ from their neighbours and from the same place of other patterns. */
inline Frame pattern(size_t size, unsigned seed = 1) {
    Frame out(size);
    unsigned value = seed;
    for (uint8_t &byte : out) {
        value = value * 1664525 + 1013904223;
        byte = static_cast<uint8_t>(value >> 24);
    }
    return out;
}

inline Frame part(const Frame &bytes, size_t begin, size_t size) {
    const auto from = bytes.begin() + static_cast<ptrdiff_t>(begin);
    return {from, from + static_cast<ptrdiff_t>(size)};
}

inline Frame record(uint32_t addr, uint16_t bursts, uint8_t mode) {
    Frame out;
    for (int i = 0; i < 4; i++) {
        out.push_back(static_cast<uint8_t>(addr >> (8 * i)));
    }
    out.push_back(static_cast<uint8_t>(bursts & 0xFF));
    out.push_back(static_cast<uint8_t>(bursts >> 8));
    out.push_back(mode);
    return out;
}

inline Frame port_size(uint16_t width, uint16_t height) {
    return {0,
            static_cast<uint8_t>(width & 0xFF),
            static_cast<uint8_t>(width >> 8),
            static_cast<uint8_t>(height & 0xFF),
            static_cast<uint8_t>(height >> 8),
            0};
}

class PictureBed : public testing::Test {
protected:
    void receive(const Frame &frame, size_t link = 0) {
        card::card_receive(*card_, {frame, link, 0}, *outcome_);
    }
    void write(uint32_t addr, const Frame &data, size_t link = 0) {
        receive(requests::plain_write(addr, data), link);
        EXPECT_EQ(outcome_->disposition, card::Disposition::kWritten);
    }
    void control(uint32_t addr, const Frame &data) {
        receive(requests::write_ack(addr, data, ++seq_));
        EXPECT_EQ(outcome_->disposition, card::Disposition::kAnswered);
    }
    Frame payload() {
        EXPECT_EQ(outcome_->count, 1U);
        const card::Bytes frame = outcome_->replies[0].frame();
        const card::Bytes data = frame.subspan(29, requests::value_at(frame.data(), 27, 2));
        return {data.begin(), data.end()};
    }
    Frame read_as(uint16_t seq, uint32_t addr, uint16_t len, size_t link = 0) {
        receive(requests::read(addr, len, seq), link);
        return payload();
    }
    Frame read(uint32_t addr, uint16_t len) {
        return read_as(++seq_, addr, len);
    }

    // One chunk as the board sends it: frames of 1400 bytes, then the control record.
    void write_chunk(size_t memory, uint32_t addr, const Frame &chunk, size_t link = 0) {
        for (size_t at = 0; at < chunk.size(); at += 1400) {
            const size_t size = std::min<size_t>(1400, chunk.size() - at);
            write(kRegisters[memory].data + static_cast<uint32_t>(at), part(chunk, at, size), link);
        }
        const auto bursts = static_cast<uint16_t>((chunk.size() + 63) / 64);
        write(kRegisters[memory].move, record(addr, bursts, 1), link);
    }
    void start_read_back(size_t memory, uint32_t addr, uint16_t bursts) {
        write(kRegisters[memory].command, record(addr, bursts, 0));
        write(kRegisters[memory].start, {1});
    }
    Frame stored(size_t memory, uint32_t addr, size_t size) {
        Frame out(size);
        card::memory_read(card_->picture.ddr2[memory].memory, addr, out);
        return out;
    }
    void arm(const card::FaultConfig &config) {
        card_->faults = card::make_fault_engine(config);
    }
    const card::Counters &counters() {
        return card_->counters;
    }

    std::unique_ptr<card::Card> card_ = std::make_unique<card::Card>();
    std::unique_ptr<card::Outcome> outcome_ = std::make_unique<card::Outcome>();
    uint16_t seq_ = 0;
};

} // namespace picture_bed

#endif

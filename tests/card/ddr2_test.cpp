// The DDR2 memories of the card, request by request.
#include <algorithm>

#include "picture_bed.h"

namespace {

using card::Fault;
using picture_bed::kRegisters;
using picture_bed::part;
using picture_bed::pattern;
using picture_bed::record;
using requests::Frame;

class Ddr2Test : public picture_bed::PictureBed {};

Frame zeros(size_t size) {
    return Frame(size, 0);
}

// ---- chunks ----

TEST_F(Ddr2Test, MovesAChunkToTheMemoryOfItsRegisters) {
    const Frame first = pattern(15360, 1);
    const Frame second = pattern(15360, 2);
    write_chunk(0, 0x1000, first);
    write_chunk(1, 0x1000, second);
    EXPECT_EQ(stored(0, 0x8000, 15360), first);
    EXPECT_EQ(stored(1, 0x8000, 15360), second);
    EXPECT_EQ(stored(0, 0x8000 + 15360, 64), zeros(64));
    EXPECT_EQ(counters().ddr2_chunks, 2U);
    EXPECT_EQ(counters().ddr2_bytes_written, 30720U);
    EXPECT_EQ(counters().ddr2_short_chunks, 0U);
    EXPECT_EQ(outcome_->count, 0U) << "a plain write is not answered";
}

TEST_F(Ddr2Test, FillsTheLastBurstWithZerosAndForgetsTheChunk) {
    card::memory_write(card_->picture.ddr2[0].memory, 0, Frame(256, 0xEE));
    write_chunk(0, 0, Frame(192, 0xAA));
    write_chunk(0, 0, Frame(100, 0xBB));
    Frame expected(100, 0xBB);
    expected.resize(128, 0);
    expected.resize(192, 0xAA);
    expected.resize(256, 0xEE);
    EXPECT_EQ(stored(0, 0, 256), expected);
    EXPECT_EQ(counters().ddr2_short_chunks, 0U);
}

TEST_F(Ddr2Test, TakesFramesOfAChunkInAnyOrderFromAnyLink) {
    const Frame chunk = pattern(2000);
    write(0xB0000 + 1400, part(chunk, 1400, 600), 1);
    write(0xB0000, part(chunk, 0, 1400), 0);
    write(0xA0001, record(0, 32, 1), 1);
    EXPECT_EQ(stored(0, 0, 2000), chunk);
    EXPECT_EQ(counters().ddr2_short_chunks, 0U);
}

TEST_F(Ddr2Test, CountsAChunkOfWhichAFrameIsMissing) {
    const Frame chunk = pattern(15360);
    write(0xB0000, part(chunk, 0, 1400));
    write(0xB0000 + 2800, part(chunk, 2800, 1400));
    write(0xA0001, record(0, 240, 1));
    EXPECT_EQ(counters().ddr2_chunks, 1U);
    EXPECT_EQ(counters().ddr2_short_chunks, 1U);
    EXPECT_EQ(stored(0, 1400, 1400), zeros(1400));
    EXPECT_EQ(stored(0, 2800, 1400), part(chunk, 2800, 1400));
}

TEST_F(Ddr2Test, AShortChunkLacksAWholeBurst) {
    write(0xB0000, Frame(65, 1));
    write(0xA0001, record(0, 2, 1));
    EXPECT_EQ(counters().ddr2_short_chunks, 0U);
    write(0xB0000, Frame(64, 1));
    write(0xA0001, record(0, 2, 1));
    EXPECT_EQ(counters().ddr2_short_chunks, 1U);
    EXPECT_EQ(counters().ddr2_bytes_written, 256U) << "whole bursts";
}

TEST_F(Ddr2Test, BytesBeyondTheWindowMakeNoChunkComplete) {
    write(0xB0000 + 16383, Frame(1400, 1));
    write(0xA0001, record(0, 2, 1));
    EXPECT_EQ(counters().ddr2_short_chunks, 1U);
}

TEST_F(Ddr2Test, KeepsBytesBeyondTheWindowOutOfTheChunk) {
    write(0xB0000 + 16383, {0x11, 0x22});
    write(0xB0000 + 16384, {0x33});
    write(0xA0001, record(0, 256, 1));
    EXPECT_EQ(stored(0, 16383, 2), (Frame{0x11, 0}));
    EXPECT_EQ(read(0xB0000 + 16384, 1), Frame{0x33}) << "an ordinary register";
}

TEST_F(Ddr2Test, IgnoresRecordsThatMeanNothing) {
    write(0xB0000, Frame(64, 7));
    for (const Frame &wrong :
         {Frame{}, record(0, 1, 0), record(0, 1, 2), record(0, 257, 1), record(0, 0xFFFF, 1),
          part(record(0, 1, 1), 0, 6), Frame{0, 0, 0, 0, 1, 0, 1, 0}}) {
        write(0xA0001, wrong);
    }
    EXPECT_EQ(counters().picture_bad_controls, 7U);
    EXPECT_EQ(counters().ddr2_chunks, 0U);
    write(0xA0001, record(0, 1, 1));
    EXPECT_EQ(stored(0, 0, 64), Frame(64, 7)) << "they leave the chunk alone";
}

TEST_F(Ddr2Test, AcceptsBothEndsOfTheMemoryAndNothingBehind) {
    constexpr uint32_t kLastBurst = 0x20000000 - 8; // in units of 8 bytes
    write_chunk(0, kLastBurst, Frame(64, 5));
    EXPECT_EQ(stored(0, 0xFFFFFFC0, 64), Frame(64, 5));
    for (const uint32_t addr : {kLastBurst + 1, 0x20000000U, 0xFFFFFFFFU}) {
        write_chunk(0, addr, Frame(64, 6));
    }
    EXPECT_EQ(counters().ddr2_refused, 3U);
    EXPECT_EQ(counters().ddr2_chunks, 1U);
    EXPECT_EQ(stored(0, 0, 64), zeros(64)) << "no wrap";
    write_chunk(0, 0, Frame(64, 8));
    EXPECT_EQ(stored(0, 0, 64), Frame(64, 8)) << "a refused chunk is gone";
}

TEST_F(Ddr2Test, HoldsNoMorePagesThanItMay) {
    card_->picture.ddr2[0].max_pages = 2;
    write_chunk(0, 0, Frame(8192, 1));
    write_chunk(0, 8192 / 8, Frame(64, 2));
    EXPECT_EQ(counters().ddr2_refused, 1U);
    EXPECT_EQ(stored(0, 8192, 64), zeros(64));
    write_chunk(0, 0, Frame(8192, 3));
    EXPECT_EQ(stored(0, 0, 8192), Frame(8192, 3)) << "what exists can be written";
}

TEST_F(Ddr2Test, SurvivesWhateverIsWritten) {
    unsigned value = 1;
    const auto next = [&value] { return value = value * 1664525 + 1013904223; };
    for (int i = 0; i < 20000; i++) {
        const auto &at = kRegisters[next() >> 31];
        const uint32_t addrs[] = {
            at.data + (next() >> 16), at.move, at.command, at.start, at.status, at.data};
        const uint32_t addr = addrs[(next() >> 16) % 6];
        const Frame data = (next() >> 30) == 0 ? pattern((next() >> 16) % 1401, next())
                                               : record(next(), static_cast<uint16_t>(next() >> 20),
                                                        static_cast<uint8_t>(next() >> 31));
        write(addr, (next() >> 30) == 0 ? Frame{1} : data);
        EXPECT_EQ(read(addr, 1400).size(), 1400U);
    }
    EXPECT_GT(counters().ddr2_commands, 0U);
    EXPECT_GT(counters().ddr2_refused, 0U);
    EXPECT_GT(counters().ddr2_fifo_short_reads, 0U);
}

// ---- read-back ----

TEST_F(Ddr2Test, IsAnOrdinaryRegisterUntilTheFirstReadBack) {
    const Frame data = pattern(1400);
    write(0xB0000, data);
    EXPECT_EQ(read(0xB0000, 1400), data);
    write(0xA0008, record(0, 22, 0));
    EXPECT_EQ(read(0xB0000, 1400), data) << "a command that is not started";
    write(0xA00FF, {1});
    EXPECT_EQ(read(0xB0000, 1400), zeros(1400));
    EXPECT_EQ(read(0xB0001, 1399), part(data, 1, 1399)) << "only the data register is a FIFO";
    write(0xF0000, data);
    EXPECT_EQ(read(0xF0000, 1400), data) << "the other memory's is not touched";
}

TEST_F(Ddr2Test, JoinsTheBlocksOfAPictureWithoutGaps) {
    for (const size_t memory : {size_t{0}, size_t{1}}) {
        const Frame picture = pattern(size_t{200} * 1408, static_cast<unsigned>(memory) + 3);
        card::memory_write(card_->picture.ddr2[memory].memory, 0x4000 * 8, picture);
        const size_t size = 200 * 1408 - 10000;
        uint32_t addr = 0x4000;
        Frame back;
        for (size_t at = 0; at < size; at += 1400) {
            const auto len = static_cast<uint16_t>(std::min<size_t>(1400, size - at));
            const auto bursts = static_cast<uint16_t>((len * 8 + 511) >> 9);
            start_read_back(memory, addr, bursts);
            EXPECT_EQ(read(kRegisters[memory].status, 1), Frame{1});
            const Frame block = read(kRegisters[memory].data, len);
            back.insert(back.end(), block.begin(), block.end());
            addr += static_cast<uint32_t>(bursts) << 3;
        }
        EXPECT_EQ(back, part(picture, 0, size));
    }
    EXPECT_EQ(counters().ddr2_fifo_restarts, 2U);
    EXPECT_EQ(counters().ddr2_fifo_short_reads, 0U);
    EXPECT_EQ(counters().ddr2_bytes_read, 2U * (200U * 1408U - 10000U));
}

TEST_F(Ddr2Test, ACommandElsewhereEmptiesTheFifoFirst) {
    const Frame bytes = pattern(4096);
    card::memory_write(card_->picture.ddr2[0].memory, 0, bytes);
    start_read_back(0, 0, 22);
    EXPECT_EQ(read(0xB0000, 100), part(bytes, 0, 100));
    start_read_back(0, 8, 1); // inside what is there already
    EXPECT_EQ(read(0xB0000, 64), part(bytes, 64, 64));
    start_read_back(0, 0, 1); // the same again, though nothing waits
    start_read_back(0, 0, 1);
    EXPECT_EQ(read(0xB0000, 64), part(bytes, 0, 64));
    EXPECT_EQ(counters().ddr2_commands, 4U);
    EXPECT_EQ(counters().ddr2_fifo_restarts, 4U);
}

TEST_F(Ddr2Test, TheTwoFifosAreApart) {
    card::memory_write(card_->picture.ddr2[0].memory, 0, Frame(64, 1));
    card::memory_write(card_->picture.ddr2[1].memory, 0, Frame(64, 2));
    start_read_back(0, 0, 1);
    start_read_back(1, 0, 1);
    EXPECT_EQ(read(0xB0000, 64), Frame(64, 1));
    EXPECT_EQ(read(0xF0000, 64), Frame(64, 2));
}

TEST_F(Ddr2Test, ReadsZerosBehindTheEndOfTheFifo) {
    card::memory_write(card_->picture.ddr2[0].memory, 0, Frame(4096, 9));
    start_read_back(0, 0, 1);
    Frame expected(64, 9);
    expected.resize(100, 0);
    EXPECT_EQ(read(0xB0000, 100), expected);
    EXPECT_EQ(counters().ddr2_fifo_short_reads, 1U);
    EXPECT_EQ(counters().ddr2_bytes_read, 64U);
    start_read_back(0, 8, 1);
    EXPECT_EQ(read(0xB0000, 64), Frame(64, 9)) << "a command that continues still does";
    EXPECT_EQ(counters().ddr2_fifo_restarts, 1U);
}

TEST_F(Ddr2Test, FindsNothingOutsideTheMemory) {
    card::memory_write(card_->picture.ddr2[0].memory, 0, Frame(4096, 9));
    start_read_back(0, 0, 1);
    for (const uint32_t addr : {0x20000000U, 0x20000000U - 4, 0xFFFFFFFFU}) {
        start_read_back(0, addr, 1);
        EXPECT_EQ(read(0xB0000, 64), zeros(64));
    }
    start_read_back(0, 0x20000000U - 8, 1);
    EXPECT_EQ(read(0xB0000, 64), zeros(64));
    EXPECT_EQ(counters().ddr2_refused, 3U);
}

TEST_F(Ddr2Test, TakesWhatWaitsFromTheMemoryWhenItIsRead) {
    start_read_back(0, 0, 1);
    write_chunk(0, 0, Frame(64, 4));
    EXPECT_EQ(read(0xB0000, 64), Frame(64, 4));
}

TEST_F(Ddr2Test, ShowsInTheStatusWhetherTheLastCommandIsDone) {
    EXPECT_EQ(read(0xA0FFD, 1), Frame{0});
    start_read_back(0, 0, 1);
    EXPECT_EQ(read(0xA0FFD, 1), Frame{1});
    EXPECT_EQ(read(0xE0FFD, 1), Frame{0});
    write(0xA0008, record(8, 1, 0));
    EXPECT_EQ(read(0xA0FFD, 1), Frame{0});
    write(0xA00FF, {1});
    EXPECT_EQ(read(0xA0FFD, 1), Frame{1});
}

TEST_F(Ddr2Test, IgnoresStartsAndCommandsThatMeanNothing) {
    write(0xA00FF, {1}); // without a command
    write(0xA0008, part(record(0, 1, 0), 0, 6));
    write(0xA0008, record(0, 1, 1));
    write(0xA00FF, {1});
    EXPECT_EQ(counters().picture_bad_controls, 4U);
    write(0xA0008, record(0, 1, 0));
    write(0xA00FF, {});
    write(0xA00FF, {0});
    write(0xA00FF, {2});
    write(0xA00FF, {1, 0});
    EXPECT_EQ(counters().picture_bad_controls, 8U);
    EXPECT_EQ(counters().ddr2_commands, 0U);
    EXPECT_EQ(read(0xA0FFD, 1), Frame{0});
}

// ---- repeats ----

TEST_F(Ddr2Test, GivesARepeatOfTheLastReadTheSameBytes) {
    const Frame bytes = pattern(4096);
    card::memory_write(card_->picture.ddr2[0].memory, 0, bytes);
    start_read_back(0, 0, 60);
    EXPECT_EQ(read_as(7, 0xB0000, 1000), part(bytes, 0, 1000));
    EXPECT_EQ(read_as(7, 0xB0000, 1000), part(bytes, 0, 1000));
    EXPECT_EQ(read_as(3, 0xA0FFD, 1), Frame{1}) << "other registers do not matter";
    EXPECT_EQ(read_as(7, 0xB0000, 1000), part(bytes, 0, 1000));
    EXPECT_EQ(read_as(8, 0xB0000, 1000), part(bytes, 1000, 1000)) << "another number";
    EXPECT_EQ(read_as(8, 0xB0000, 500), part(bytes, 2000, 500)) << "another length";
    EXPECT_EQ(read_as(8, 0xB0000, 500, 1), part(bytes, 2500, 500)) << "another link";
    EXPECT_EQ(counters().ddr2_fifo_reads, 4U);
    EXPECT_EQ(counters().ddr2_fifo_repeats, 2U);
}

TEST_F(Ddr2Test, ARepeatBehindAStartIsANewRead) {
    const Frame bytes = pattern(4096);
    card::memory_write(card_->picture.ddr2[0].memory, 0, bytes);
    start_read_back(0, 0, 1);
    EXPECT_EQ(read_as(7, 0xB0000, 64), part(bytes, 0, 64));
    start_read_back(0, 8, 1);
    EXPECT_EQ(read_as(7, 0xB0000, 64), part(bytes, 64, 64));
    EXPECT_EQ(counters().ddr2_fifo_repeats, 0U);
}

TEST_F(Ddr2Test, ALostOrSilencedReplyDoesNotLoseBytes) {
    const Frame bytes = pattern(4096);
    card::memory_write(card_->picture.ddr2[0].memory, 0, bytes);
    card::AddressRule silence;
    silence.fault = Fault::kSilence;
    silence.range = {0xB0000, 0xB0000, 1};
    arm({.nth = {{Fault::kDropRequest, 3}, {Fault::kDrop, 1}}, .rules = {silence}});
    start_read_back(0, 0, 60);                 // chances 1 and 2
    receive(requests::read(0xB0000, 1400, 1)); // the request is lost
    EXPECT_EQ(outcome_->count, 0U);
    receive(requests::read(0xB0000, 1400, 1)); // silenced
    EXPECT_EQ(outcome_->count, 0U);
    receive(requests::read(0xB0000, 1400, 1)); // the reply is lost
    EXPECT_EQ(outcome_->replies[0].copies, 0U);
    EXPECT_EQ(read_as(1, 0xB0000, 1400), part(bytes, 0, 1400));
    EXPECT_EQ(read_as(2, 0xB0000, 1400), part(bytes, 1400, 1400));
    EXPECT_EQ(counters().ddr2_fifo_reads, 2U);
    EXPECT_EQ(counters().ddr2_fifo_repeats, 2U);
}

TEST_F(Ddr2Test, ARefusedReadTakesNothing) {
    const Frame bytes = pattern(4096);
    card::memory_write(card_->picture.ddr2[0].memory, 0, bytes);
    card::AddressRule refusal;
    refusal.fault = Fault::kError;
    refusal.range = {0xB0000, 0xB0000, 1};
    refusal.status = 5;
    arm({.rules = {refusal}});
    start_read_back(0, 0, 2);
    EXPECT_EQ(read_as(1, 0xB0000, 64), Frame{});
    EXPECT_EQ(read_as(2, 0xB0000, 64), part(bytes, 0, 64));
}

TEST_F(Ddr2Test, TakesAcknowledgedWritesAsWell) {
    control(0xB0000, Frame(64, 3));
    control(0xA0001, record(0, 1, 1));
    EXPECT_EQ(stored(0, 0, 64), Frame(64, 3));
    EXPECT_EQ(read(0xA0001, 7), record(0, 1, 1)) << "the register memory has it too";
}

TEST_F(Ddr2Test, ARefusedWriteDoesNothing) {
    card::AddressRule refusal;
    refusal.fault = Fault::kError;
    refusal.range = {0xA0001, 0xA0001, 1};
    refusal.status = 5;
    arm({.rules = {refusal}});
    write(0xB0000, Frame(64, 3));
    receive(requests::write_ack(0xA0001, record(0, 1, 1), 1));
    EXPECT_EQ(outcome_->disposition, card::Disposition::kRefused);
    EXPECT_EQ(counters().ddr2_chunks, 0U);
}

} // namespace

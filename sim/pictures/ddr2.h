// ddr2.h - one DDR2 memory of the card: chunks in, a read-back FIFO out.
#ifndef CARD_DDR2_H
#define CARD_DDR2_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "faults/counters.h"
#include "pictures/picture_registers.h"
#include "registers/memory.h"
#include "wire/bytes.h"

namespace card {

// Pages that one memory may bring into being; what it holds beyond them is lost.
constexpr size_t kDdr2MaxPages = (size_t{512} << 20) / kPageSize;

/** A read request as far as the FIFO needs it to know a repeat. */
struct FifoRead {
    size_t link = 0;
    uint16_t seq = 0;
    uint32_t addr = 0;
    uint16_t len = 0;

    bool operator==(const FifoRead &) const = default;
};

/**
 * The bytes that wait to be read. Commands that continue each other make one stretch of the memory,
 * so its two ends are all there is to keep; the bytes are looked up when they are read.
 */
struct Ddr2Fifo {
    bool ever_started = false; // before that the data register reads as an ordinary one
    uint64_t front = 0;        // byte address of the next byte to read
    uint64_t end = 0;          // byte address behind the last one
    std::optional<FifoRead> last{};
    uint64_t last_front = 0; // where the last read began
};

struct Ddr2Command {
    uint32_t addr = 0; // in units
    uint32_t bursts = 0;
};

struct Ddr2 {
    Memory memory;
    size_t max_pages = kDdr2MaxPages;
    std::array<uint8_t, kChunkWindow> chunk{}; // 0 where nothing was written since the last move
    size_t chunk_end = 0;                      // behind the last byte written
    size_t chunk_bytes = 0;                    // how many were written
    std::optional<Ddr2Command> command{};
    Ddr2Fifo fifo;
};

/** Put bytes into the chunk; those beyond the window are lost. */
void ddr2_fill(Ddr2 &ddr2, size_t offset, Bytes data);

/** A record for the move register: move the chunk to the memory and clear it. */
void ddr2_move(Ddr2 &ddr2, Bytes record, Counters &counters);

/** A record for the command register; true when it is a good one. */
bool ddr2_command(Ddr2 &ddr2, Bytes record, Counters &counters);

/** A write to the start register: carry the command out; true when there was something to do. */
bool ddr2_start(Ddr2 &ddr2, Bytes data, Counters &counters);

/**
 * Read from the data register. False when it is an ordinary register so far. Bytes that the FIFO
 * does not hold are 0. A repeat of the very last read finds the same bytes again.
 */
bool ddr2_read(Ddr2 &ddr2, const FifoRead &read, MutableBytes out, Counters &counters);

} // namespace card

#endif

#include "pictures/ddr2.h"

#include <algorithm>

namespace card {

namespace {

std::optional<Ddr2Command> take_record(Bytes record, uint32_t mode, Counters &counters) {
    if (record.size() != ddr2_record::kSize || load_le(record, ddr2_record::kMode) != mode) {
        counters.picture_bad_controls++;
        return std::nullopt;
    }
    return Ddr2Command{.addr = load_le(record, ddr2_record::kAddr),
                       .bursts = load_le(record, ddr2_record::kBursts)};
}

uint64_t first_byte(const Ddr2Command &command) {
    return static_cast<uint64_t>(command.addr) * kUnitBytes;
}

size_t byte_count(const Ddr2Command &command) {
    return command.bursts * kBurstBytes;
}

bool in_memory(const Ddr2Command &command) {
    return first_byte(command) + byte_count(command) <= kMemorySize;
}

void clear_chunk(Ddr2 &ddr2) {
    std::fill_n(ddr2.chunk.begin(), ddr2.chunk_end, uint8_t{0});
    ddr2.chunk_end = 0;
    ddr2.chunk_bytes = 0;
}

bool has_room(const Ddr2 &ddr2, uint32_t addr, size_t size) {
    const size_t needed = memory_missing_pages(ddr2.memory, addr, size);
    return needed == 0 || ddr2.memory.page_count + needed <= ddr2.max_pages;
}

void store_chunk(Ddr2 &ddr2, const Ddr2Command &command, Counters &counters) {
    const size_t size = byte_count(command);
    const auto addr = static_cast<uint32_t>(first_byte(command));
    if (!in_memory(command) || !has_room(ddr2, addr, size)) {
        counters.ddr2_refused++;
        return;
    }
    memory_write(ddr2.memory, addr, Bytes(ddr2.chunk).first(size));
    counters.ddr2_chunks++;
    counters.ddr2_bytes_written += size;
    // A chunk may end anywhere in its last burst; when more is missing, a frame was lost.
    counters.ddr2_short_chunks += ddr2.chunk_bytes + kBurstBytes <= size ? 1U : 0U;
}

} // namespace

void ddr2_fill(Ddr2 &ddr2, size_t offset, Bytes data) {
    const Bytes kept = data.first(std::min(data.size(), kChunkWindow - offset));
    std::ranges::copy(kept, ddr2.chunk.begin() + static_cast<ptrdiff_t>(offset));
    ddr2.chunk_end = std::max(ddr2.chunk_end, offset + kept.size());
    ddr2.chunk_bytes += kept.size();
}

void ddr2_move(Ddr2 &ddr2, Bytes record, Counters &counters) {
    const auto command = take_record(record, ddr2_record::kModeMove, counters);
    if (!command) {
        return;
    }
    if (byte_count(*command) > kChunkWindow) {
        counters.picture_bad_controls++;
        return;
    }
    store_chunk(ddr2, *command, counters);
    clear_chunk(ddr2);
}

bool ddr2_command(Ddr2 &ddr2, Bytes record, Counters &counters) {
    const auto command = take_record(record, ddr2_record::kModeCommand, counters);
    if (command) {
        ddr2.command = command;
    }
    return command.has_value();
}

bool ddr2_start(Ddr2 &ddr2, Bytes data, Counters &counters) {
    if (data.size() != 1 || data[0] != kOn || !ddr2.command) {
        counters.picture_bad_controls++;
        return false;
    }
    Ddr2Fifo &fifo = ddr2.fifo;
    fifo.last.reset();
    counters.ddr2_commands++;
    const uint64_t begin = first_byte(*ddr2.command);
    if (!fifo.ever_started || begin != fifo.end) {
        counters.ddr2_fifo_restarts++;
        fifo.ever_started = true;
        fifo.front = begin;
        fifo.end = begin;
    }
    if (in_memory(*ddr2.command)) {
        fifo.end += byte_count(*ddr2.command);
    } else {
        counters.ddr2_refused++;
    }
    return true;
}

bool ddr2_read(Ddr2 &ddr2, const FifoRead &read, MutableBytes out, Counters &counters) {
    Ddr2Fifo &fifo = ddr2.fifo;
    if (!fifo.ever_started) {
        return false;
    }
    if (fifo.last == read) { // its reply was lost
        counters.ddr2_fifo_repeats++;
        fifo.front = fifo.last_front;
    } else {
        counters.ddr2_fifo_reads++;
        fifo.last = read;
        fifo.last_front = fifo.front;
    }
    const size_t held = static_cast<size_t>(std::min<uint64_t>(out.size(), fifo.end - fifo.front));
    memory_read(ddr2.memory, static_cast<uint32_t>(fifo.front), out.first(held));
    std::ranges::fill(out.subspan(held), uint8_t{0});
    counters.ddr2_fifo_short_reads += held < out.size() ? 1U : 0U;
    counters.ddr2_bytes_read += held;
    fifo.front += held;
    return true;
}

} // namespace card

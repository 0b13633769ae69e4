// memory.h - the card's address space: 4 GiB of bytes, of which only written pages exist.
//
// Bytes that were never written read as 0. Addresses wrap from 0xFFFFFFFF to 0.
#ifndef CARD_MEMORY_H
#define CARD_MEMORY_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include "wire/bytes.h"

namespace card {

constexpr uint64_t kMemorySize = uint64_t{1} << 32;
constexpr size_t kPageBits = 12;
constexpr size_t kPageSize = size_t{1} << kPageBits;
constexpr size_t kTableBits = 10; // two levels of 1024 entries cover the 2^20 pages

struct MemoryPage {
    std::array<uint8_t, kPageSize> bytes{};
};

struct MemoryTable {
    std::array<std::unique_ptr<MemoryPage>, size_t{1} << kTableBits> pages;
};

struct Memory {
    std::array<std::unique_ptr<MemoryTable>, size_t{1} << kTableBits> tables;
    size_t page_count = 0;
};

/** Copy `out.size()` bytes from `addr` on. */
void memory_read(const Memory &memory, uint32_t addr, MutableBytes out);

/** Copy `data` to `addr` on; pages come into being as needed (throws std::bad_alloc). */
void memory_write(Memory &memory, uint32_t addr, Bytes data);

/** How many pages a write of `size` bytes to `addr` on would bring into being. */
size_t memory_missing_pages(const Memory &memory, uint32_t addr, size_t size);

/** Call `visit(address, page)` for each existing page, in rising order, until it returns false. */
void memory_for_each_page(const Memory &memory,
                          const std::function<bool(uint32_t, const MemoryPage &)> &visit);

} // namespace card

#endif

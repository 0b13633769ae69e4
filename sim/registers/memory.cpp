#include "registers/memory.h"

#include <algorithm>

namespace card {

namespace {

constexpr uint32_t kTableMask = (uint32_t{1} << kTableBits) - 1;
constexpr uint32_t kPageMask = (uint32_t{1} << kPageBits) - 1;

size_t table_index(uint32_t addr) {
    return addr >> (kPageBits + kTableBits);
}

size_t page_index(uint32_t addr) {
    return (addr >> kPageBits) & kTableMask;
}

const MemoryPage *find_page(const Memory &memory, uint32_t addr) {
    const MemoryTable *table = memory.tables[table_index(addr)].get();
    return table == nullptr ? nullptr : table->pages[page_index(addr)].get();
}

MemoryPage &make_page(Memory &memory, uint32_t addr) {
    auto &table = memory.tables[table_index(addr)];
    if (table == nullptr) {
        table = std::make_unique<MemoryTable>();
    }
    auto &page = table->pages[page_index(addr)];
    if (page == nullptr) {
        page = std::make_unique<MemoryPage>();
        memory.page_count++;
    }
    return *page;
}

// How many of `wanted` bytes from `addr` on lie in one page.
size_t in_page(uint32_t addr, size_t wanted) {
    return std::min(wanted, kPageSize - (addr & kPageMask));
}

} // namespace

void memory_read(const Memory &memory, uint32_t addr, MutableBytes out) {
    while (!out.empty()) {
        const size_t count = in_page(addr, out.size());
        const MemoryPage *page = find_page(memory, addr);
        if (page == nullptr) {
            std::fill_n(out.begin(), count, uint8_t{0});
        } else {
            std::copy_n(page->bytes.data() + (addr & kPageMask), count, out.begin());
        }
        addr += static_cast<uint32_t>(count); // wraps at 4 GiB, as the address lines do
        out = out.subspan(count);
    }
}

void memory_write(Memory &memory, uint32_t addr, Bytes data) {
    while (!data.empty()) {
        const size_t count = in_page(addr, data.size());
        MemoryPage &page = make_page(memory, addr);
        std::copy_n(data.begin(), count, page.bytes.data() + (addr & kPageMask));
        addr += static_cast<uint32_t>(count);
        data = data.subspan(count);
    }
}

size_t memory_missing_pages(const Memory &memory, uint32_t addr, size_t size) {
    size_t missing = 0;
    while (size > 0) {
        const size_t count = in_page(addr, size);
        missing += find_page(memory, addr) == nullptr ? 1U : 0U;
        addr += static_cast<uint32_t>(count);
        size -= count;
    }
    return missing;
}

void memory_for_each_page(const Memory &memory,
                          const std::function<bool(uint32_t, const MemoryPage &)> &visit) {
    for (size_t t = 0; t < memory.tables.size(); t++) {
        if (memory.tables[t] == nullptr) {
            continue;
        }
        const auto &pages = memory.tables[t]->pages;
        for (size_t p = 0; p < pages.size(); p++) {
            const uint64_t addr = (static_cast<uint64_t>(t) << (kPageBits + kTableBits)) |
                                  (static_cast<uint64_t>(p) << kPageBits);
            if (pages[p] != nullptr && !visit(static_cast<uint32_t>(addr), *pages[p])) {
                return;
            }
        }
    }
}

} // namespace card

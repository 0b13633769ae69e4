#include "memory/product_memory.h"

#include "memory/variables.h"
#include "scheduler/trace.h"

#include "eth_raw/eth_raw.h"
#include "raw_msg/raw_msg.h"
#include "timer/timer.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <vector>

namespace sim {

namespace {

constexpr size_t kUnit = 8; // the pool's headers are a multiple of it
constexpr size_t kHeapSize = 16 << 20;
constexpr size_t kGap = 16;                        // between two blocks
constexpr uintptr_t kHeapAddress = 0x600000000000; // the same in every process, for the traces

struct Block {
    uint32_t size; // 0: no block begins here
    const char *what;
};

struct Area {
    char *begin;
    char *end;
    std::vector<char> at_start;
};

uint8_t *g_heap;
size_t g_heap_used;
int64_t g_blocks_in_use;
std::vector<Use> g_use;
std::vector<Block> g_blocks;
std::vector<uint8_t> g_is_handed_out;
int64_t g_pool_blocks_out;
Area g_data;
Area g_bss;
int g_outside = 1; // between runs

void take_snapshot(Area &area, int *begin, int *end) {
    area.begin = reinterpret_cast<char *>(begin);
    area.end = reinterpret_cast<char *>(end);
    if (area.begin >= area.end) {
        std::abort(); // the linker has not kept the objects' order
    }
    area.at_start.assign(area.begin, area.end);
}

void set_up() {
    take_snapshot(g_data, &sim_data_begin, &sim_data_end);
    take_snapshot(g_bss, &sim_bss_begin, &sim_bss_end);
    const void *const known[] = {&g_eth_init, &g_netdev_name, &elapsed, &sem_test, &gRecvBuffer};
    for (const void *variable : known) {
        if (!is_product_variable(variable)) {
            std::abort();
        }
    }
    void *heap = mmap(reinterpret_cast<void *>(kHeapAddress), kHeapSize, PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED_NOREPLACE, -1, 0);
    if (heap == MAP_FAILED) {
        std::abort();
    }
    g_heap = static_cast<uint8_t *>(heap);
    g_use.resize(kHeapSize / kUnit);
    g_blocks.resize(kHeapSize / kUnit);
    g_is_handed_out.resize(kHeapSize / kUnit);
}

bool is_in(const Area &area, const void *address) {
    return address >= area.begin && address < area.end;
}

size_t unit_of(const void *address) {
    return static_cast<size_t>(static_cast<const uint8_t *>(address) - g_heap) / kUnit;
}

size_t units(size_t size) {
    return (size + kUnit - 1) / kUnit;
}

void mark(void *address, size_t size, Use use) {
    const OutsideProduct outside;
    memset(&g_use[unit_of(address)], static_cast<int>(use), units(size));
}

} // namespace

void reset_product_memory() {
    if (g_heap == nullptr) {
        set_up();
    }
    g_outside = 1; // these are no accesses of a thread
    memcpy(g_data.begin, g_data.at_start.data(), g_data.at_start.size());
    memcpy(g_bss.begin, g_bss.at_start.data(), g_bss.at_start.size());
    memset(g_use.data(), 0, units(g_heap_used));
    memset(static_cast<void *>(g_blocks.data()), 0, units(g_heap_used) * sizeof(Block));
    memset(g_is_handed_out.data(), 0, units(g_heap_used));
    g_heap_used = 0;
    g_blocks_in_use = 0;
    g_pool_blocks_out = 0;
}

bool is_in_heap(const void *address) {
    return address >= g_heap && address < g_heap + kHeapSize;
}

bool is_product_variable(const void *address) {
    return is_in(g_data, address) || is_in(g_bss, address);
}

size_t heap_offset(const void *address) {
    return static_cast<size_t>(static_cast<const uint8_t *>(address) - g_heap);
}

// From the first variable on; what lies between the two areas is nobody's.
size_t variable_offset(const void *address) {
    return static_cast<size_t>(static_cast<const char *>(address) -
                               std::min(g_data.begin, g_bss.begin));
}

void *heap_take(size_t size, const char *what) {
    constexpr size_t kAlignment = 16;
    const size_t whole = (std::max<size_t>(size, 1) + kAlignment - 1) / kAlignment * kAlignment;
    if (g_heap_used + whole + kGap > kHeapSize) {
        fail("the simulation's heap is too small");
    }
    uint8_t *block = g_heap + g_heap_used;
    g_heap_used += whole + kGap;
    g_blocks[unit_of(block)] = {.size = static_cast<uint32_t>(whole), .what = what};
    const OutsideProduct outside;
    memset(block, kUntouched, whole);
    mark(block, whole, Use::kInUse);
    g_blocks_in_use += 1;
    return block;
}

bool heap_is_start_of_block(const void *address) {
    return is_in_heap(address) && g_blocks[unit_of(address)].size != 0;
}

void heap_release(void *block) {
    if (!heap_is_start_of_block(block)) {
        fail("released: %p, which is no block of the heap", block);
    }
    if (heap_use(block) != Use::kInUse) {
        fail("released twice: block %p of the heap (%s)", block, g_blocks[unit_of(block)].what);
    }
    mark(block, g_blocks[unit_of(block)].size, Use::kReleased);
    g_blocks_in_use -= 1;
}

int64_t heap_blocks_in_use() {
    return g_blocks_in_use;
}

void pool_hands_out(void *data, size_t size) {
    {
        const OutsideProduct outside;
        memset(data, kUntouched, size); // the pool promises no content
    }
    mark(data, size, Use::kInUse);
    g_is_handed_out[unit_of(data)] = true;
    g_pool_blocks_out += 1;
}

void pool_takes_back(void *data, size_t size) {
    mark(data, size, Use::kReleased);
    g_is_handed_out[unit_of(data)] = false;
    g_pool_blocks_out -= 1;
}

bool pool_has_handed_out(const void *data) {
    return g_is_handed_out[unit_of(data)];
}

int64_t pool_blocks_out() {
    return g_pool_blocks_out;
}

Use heap_use(const void *address) {
    return g_use[unit_of(address)];
}

void must_be_usable(const void *address, size_t size, const char *what) {
    if (!is_in_heap(address) || size == 0) {
        return;
    }
    const size_t first = unit_of(address);
    const size_t last = unit_of(static_cast<const uint8_t *>(address) + size - 1);
    for (size_t unit = first; unit <= last; unit++) {
        if (g_use[unit] != Use::kInUse) {
            fail("%s: %s memory at %s", what,
                 g_use[unit] == Use::kReleased ? "touches released"
                                               : "runs past a block into unused",
                 name_of_address(g_heap + unit * kUnit).c_str());
        }
    }
}

void tell_pool_blocks_out() {
    for (size_t unit = 0; unit < units(g_heap_used); unit++) {
        if (g_is_handed_out[unit] != 0) {
            SIM_TELL("block %p is still out", static_cast<void *>(g_heap + unit * kUnit));
        }
    }
}

OutsideProduct::OutsideProduct() {
    g_outside += 1;
}

OutsideProduct::~OutsideProduct() {
    g_outside -= 1;
}

void begin_product() {
    g_outside = 0;
}

void end_product() {
    g_outside = 1;
}

bool is_outside_product() {
    return g_outside != 0;
}

} // namespace sim

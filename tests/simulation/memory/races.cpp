#include "memory/races.h"

#include "memory/product_memory.h"
#include "scheduler/scheduler.h"
#include "scheduler/settings.h"
#include "scheduler/trace.h"

#include <algorithm>
#include <array>
#include <unordered_map>
#include <vector>

namespace sim {

namespace {

using Clock = std::array<uint32_t, kMostThreads>;

// The latest accesses to four bytes of memory. A bit of a mask stands for one of the bytes.
struct Mark {
    uint32_t clock; // 0: none
    uint32_t from;  // the program is linked to low addresses
    uint8_t thread;
    uint8_t bytes;
    bool is_atomic;
};
struct Cell {
    uint32_t run; // what another run left is nothing
    Mark write;
    std::array<Mark, 3> reads;
};

constexpr size_t kUnit = 4;
constexpr size_t kWatched = 1 << 20;   // bytes of each area; no run uses more of the heap
constexpr size_t kLongestRange = 4096; // what is larger is cleared before there are threads

std::array<Clock, kMostThreads> g_clocks;
std::unordered_map<const void *, Clock> g_objects;
std::vector<Cell> g_cells; // of the variables, then of the heap
uint32_t g_run;

Cell *cell_of(uintptr_t unit) {
    const void *address = reinterpret_cast<const void *>(unit * kUnit);
    const size_t offset = is_in_heap(address) ? heap_offset(address) : variable_offset(address);
    if (offset >= kWatched) {
        return nullptr;
    }
    Cell &cell = g_cells[(offset + (is_in_heap(address) ? kWatched : 0)) / kUnit];
    if (cell.run != g_run) {
        cell = {.run = g_run, .write = {}, .reads = {}};
    }
    return &cell;
}

Clock &my_clock() {
    return g_clocks[static_cast<size_t>(self().id)];
}

void join(Clock &to, const Clock &from) {
    for (size_t i = 0; i < to.size(); i++) {
        to[i] = std::max(to[i], from[i]);
    }
}

bool is_before_me(const Mark &mark) {
    return mark.clock <= my_clock()[mark.thread];
}

void check(const Mark &mark, uint8_t bytes, bool is_atomic, const char *what, uintptr_t address,
           const void *from) {
    if (mark.clock == 0 || (mark.bytes & bytes) == 0 || mark.thread == self().id ||
        (mark.is_atomic && is_atomic) || is_before_me(mark)) {
        return;
    }
    fail("race: %s at %s, in %s by %s and in %s by %s", what,
         name_of_address(reinterpret_cast<const void *>(address)).c_str(),
         name_of_address(reinterpret_cast<const void *>(uintptr_t{mark.from})).c_str(),
         thread(mark.thread)->name, name_of_address(from).c_str(), self().name);
}

void note_read(Cell &cell, const Mark &mark) {
    Mark *place = &cell.reads[0];
    for (Mark &read : cell.reads) {
        if (read.clock == 0 || (read.thread == mark.thread && read.is_atomic == mark.is_atomic)) {
            place = &read;
            break;
        }
    }
    const auto bytes = static_cast<uint8_t>(
        place->clock == mark.clock && place->thread == mark.thread ? place->bytes | mark.bytes
                                                                   : mark.bytes);
    *place = mark;
    place->bytes = bytes;
}

} // namespace

void races_reset() {
    if (g_cells.empty()) {
        g_cells.resize(2 * kWatched / kUnit);
    }
    g_run += 1;
    for (size_t i = 0; i < g_clocks.size(); i++) {
        g_clocks[i].fill(0);
        g_clocks[i][i] = 1;
    }
    g_objects.clear();
}

void races_acquired(const void *object) {
    if (!g_settings.looks_for_races) {
        return;
    }
    const auto found = g_objects.find(object);
    if (found != g_objects.end()) {
        join(my_clock(), found->second);
    }
}

void races_released(const void *object) {
    if (!g_settings.looks_for_races) {
        return;
    }
    join(g_objects[object], my_clock());
    my_clock()[static_cast<size_t>(self().id)] += 1;
}

void races_started(int parent, int child) {
    if (!g_settings.looks_for_races) {
        return;
    }
    Clock &of_parent = g_clocks[static_cast<size_t>(parent)];
    join(g_clocks[static_cast<size_t>(child)], of_parent);
    of_parent[static_cast<size_t>(parent)] += 1;
}

void races_forked() {
    for (const Clock &clock : g_clocks) {
        join(my_clock(), clock);
    }
}

void races_access(const void *address, size_t size, Access access, const void *from) {
    const bool is_write = access == Access::kWrite || access == Access::kAtomicWrite;
    const bool is_atomic = access == Access::kAtomicRead || access == Access::kAtomicWrite;
    const auto begin = reinterpret_cast<uintptr_t>(address);
    const uintptr_t end = begin + size;
    if (size > kLongestRange) {
        return;
    }
    for (uintptr_t unit = begin / kUnit; unit * kUnit < end; unit++) {
        uint8_t bytes = 0;
        for (size_t i = 0; i < kUnit; i++) {
            if (unit * kUnit + i >= begin && unit * kUnit + i < end) {
                bytes = static_cast<uint8_t>(bytes | 1U << i);
            }
        }
        Cell *const found = cell_of(unit);
        if (found == nullptr) {
            return;
        }
        Cell &cell = *found;
        const Mark mark{.clock = my_clock()[static_cast<size_t>(self().id)],
                        .from = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(from)),
                        .thread = static_cast<uint8_t>(self().id),
                        .bytes = bytes,
                        .is_atomic = is_atomic};
        check(cell.write, bytes, is_atomic, is_write ? "two writes" : "a write and a read",
              unit * kUnit, from);
        if (!is_write) {
            note_read(cell, mark);
            continue;
        }
        for (const Mark &read : cell.reads) {
            check(read, bytes, is_atomic, "a read and a write", unit * kUnit, from);
        }
        cell = {.run = g_run, .write = mark, .reads = {}};
    }
}

} // namespace sim

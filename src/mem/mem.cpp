#include "mem/mem.h"

#include "log/write.h"
#include "mem/locks.h"
#include "mem/mem_priv.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <numeric>

namespace {

constexpr std::array<uint32_t, 8> mem_type{64, 128, 256, 512, 1024, 2048, 4096, 8192};

struct FreeList {
    mem_block *head;
    mem_block *tail; // meaningless while head is null
    uint64_t length;
};

pthread_mutex_t mutex_mem = PTHREAD_MUTEX_INITIALIZER; // guards mem_list; leaf
std::array<FreeList, mem_type.size()> mem_list;
std::atomic<int64_t> g_handed_out{0};
std::atomic<uint64_t> g_failed{0};

bool is_class(int64_t type) {
    return type >= 0 && type < static_cast<int64_t>(mem_type.size());
}

void append_locked(FreeList &list, mem_block *block) {
    block->next = nullptr;
    if (list.head == nullptr) {
        list.head = block;
    } else {
        list.tail->next = block;
    }
    list.tail = block;
    list.length += 1;
}

mem_block *take_locked(FreeList &list) {
    mem_block *block = list.head;
    if (block != nullptr) {
        list.head = block->next;
        list.length -= 1;
    }
    return block;
}

void release_all_locked(FreeList &list) {
    while (mem_block *block = take_locked(list)) {
        std::free(block);
    }
}

mem_block *header_of(void *p) {
    return static_cast<mem_block *>(p) - 1;
}

} // namespace

int mem_init(void) {
    LOG("USE MEM_MANAGEN");
    const MutexGuard guard(mutex_mem);
    mem_list.fill({});
    return 0;
}

void *mem_alloc(uint32_t size) {
    const auto *chosen = std::lower_bound(mem_type.begin(), mem_type.end(), size);
    if (chosen == mem_type.end()) {
        return nullptr;
    }
    const auto type = chosen - mem_type.begin();
    mem_block *block = mem_pop(static_cast<int32_t>(type));
    if (block == nullptr) {
        block = static_cast<mem_block *>(std::malloc(sizeof(mem_block) + *chosen));
        if (block == nullptr) {
            g_failed.fetch_add(1, std::memory_order_relaxed);
            return nullptr;
        }
    }
    *block = {.self = block,
              .type = static_cast<uint32_t>(type),
              .data = block + 1,
              .size = *chosen,
              .used = 1,
              .next = nullptr};
    g_handed_out.fetch_add(1, std::memory_order_relaxed);
    return block->data;
}

void mem_free(void *p) {
    if (p == nullptr) {
        return;
    }
    mem_block *block = header_of(p);
    // Listing a block twice would hand it to two owners and tie the free list into a ring.
    if (std::atomic_ref<uint32_t>(block->used).exchange(0) == 0) {
        LOG("mem: free %p: already free, ignored\n", p);
        return;
    }
    g_handed_out.fetch_sub(1, std::memory_order_relaxed);
    mem_push(static_cast<int32_t>(block->type), block);
}

void mem_push(int32_t type, mem_block *block) {
    if (block == nullptr) {
        return;
    }
    if (!is_class(type)) {
        std::free(block);
        return;
    }
    const MutexGuard guard(mutex_mem);
    append_locked(mem_list[static_cast<size_t>(type)], block);
}

mem_block *mem_pop(int32_t type) {
    if (!is_class(type)) {
        return nullptr;
    }
    const MutexGuard guard(mutex_mem);
    return take_locked(mem_list[static_cast<size_t>(type)]);
}

int mem_uinit(void) {
    const MutexGuard guard(mutex_mem);
    std::for_each(mem_list.begin(), mem_list.end(), release_all_locked);
    return 0;
}

int64_t mem_handed_out() {
    return g_handed_out.load(std::memory_order_relaxed);
}

uint64_t mem_waiting() {
    const MutexGuard guard(mutex_mem);
    return std::accumulate(mem_list.begin(), mem_list.end(), uint64_t{0},
                           [](uint64_t sum, const FreeList &list) { return sum + list.length; });
}

uint64_t mem_failed() {
    return g_failed.load(std::memory_order_relaxed);
}

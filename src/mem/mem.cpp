#include "mem/mem.h"

#include "base/locks.h"
#include "log/write.h"
#include "mem/pool_counts.h"

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

[[maybe_unused]] const bool g_renews_lock =
    renew_in_child([] { mutex_mem = PTHREAD_MUTEX_INITIALIZER; });

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
        block->next = nullptr; // see is_free_locked
    }
    return block;
}

bool holds_locked(const FreeList &list, const mem_block *block) {
    const mem_block *listed = list.head;
    while (listed != nullptr && listed != block) {
        listed = listed->next;
    }
    return listed != nullptr;
}

// Listing a block twice would hand it to two owners and tie the free list into a ring. A block
// without a next can only stand last; a host's own header may hold anything there, so with a next
// the lists decide.
bool is_free_locked(const mem_block *block) {
    return std::any_of(mem_list.begin(), mem_list.end(), [block](const FreeList &list) {
        return block->next == nullptr ? list.head != nullptr && list.tail == block
                                      : holds_locked(list, block);
    });
}

void release_all_locked(FreeList &list) {
    while (mem_block *block = take_locked(list)) {
        std::free(block);
    }
}

mem_block *header_of(void *p) {
    return static_cast<mem_block *>(p) - 1;
}

bool append_unless_free(FreeList &list, mem_block *block) {
    const MutexGuard guard(mutex_mem);
    if (is_free_locked(block)) {
        return false;
    }
    append_locked(list, block);
    return true;
}

// Returns whether the block was given back; false: it had been before.
bool push(int32_t type, mem_block *block) {
    if (!is_class(type)) {
        std::free(block);
        return true;
    }
    if (append_unless_free(mem_list[static_cast<size_t>(type)], block)) {
        return true;
    }
    LOG("mem: free %p: already free, ignored\n", static_cast<void *>(block + 1));
    return false;
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
    const bool was_handed_out = std::atomic_ref<uint32_t>(block->used).exchange(0) != 0;
    if (push(static_cast<int32_t>(block->type), block) && was_handed_out) {
        g_handed_out.fetch_sub(1, std::memory_order_relaxed); // mem_pop's blocks are not counted
    }
}

void mem_push(int32_t type, mem_block *block) {
    if (block != nullptr) {
        (void)push(type, block);
    }
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

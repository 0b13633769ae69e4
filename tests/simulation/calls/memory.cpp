// The heap and the pool's blocks: who has what.
#include "memory/product_memory.h"
#include "scheduler/scheduler.h"
#include "scheduler/settings.h"
#include "scheduler/trace.h"

#include "mem/mem.h"

#include <cerrno>
#include <cstring>

namespace {

using namespace sim;

void *take_from_heap(const char *call, size_t size) {
    point(call);
    if (fault(g_settings.no_memory_one_in)) {
        SIM_TELL("%s of %zu bytes fails", call, size);
        errno = ENOMEM;
        return nullptr;
    }
    return heap_take(size, call);
}

const mem_block *header_of(const void *data) {
    return static_cast<const mem_block *>(data) - 1;
}

} // namespace

extern "C" {

// NOLINTBEGIN: the linker's names
void *__wrap_malloc(size_t size) {
    return take_from_heap("malloc", size);
}

void *__wrap_calloc(size_t count, size_t size) {
    void *block = take_from_heap("calloc", count * size);
    if (block != nullptr) {
        const OutsideProduct outside;
        memset(block, 0, count * size);
    }
    return block;
}

void __wrap_free(void *block) {
    point("free");
    if (block != nullptr) {
        heap_release(block);
    }
}

void *__real_mem_alloc(uint32_t size);
void __real_mem_free(void *data);

// Behind the header the pool itself never looks, so a block is nobody's until it is handed out.
void *__wrap_mem_alloc(uint32_t size) {
    void *data = __real_mem_alloc(size);
    if (data == nullptr) {
        return nullptr;
    }
    const mem_block *header = header_of(data);
    if (!heap_is_start_of_block(header)) {
        fail("mem_alloc gives %p, which is no block of the pool", data);
    }
    if (pool_has_handed_out(data)) {
        fail("handed out twice: %s", name_of_address(data).c_str());
    }
    pool_hands_out(data, header->size);
    SIM_TELL("takes block %s", name_of_address(data).c_str());
    return data;
}

void __wrap_mem_free(void *data) {
    if (data != nullptr) {
        if (!is_in_heap(data) || !heap_is_start_of_block(header_of(data))) {
            fail("mem_free of %p, which is no block of the pool", data);
        }
        if (!pool_has_handed_out(data)) {
            fail("released twice: pool block %s", name_of_address(data).c_str());
        }
        SIM_TELL("releases block %s", name_of_address(data).c_str());
        pool_takes_back(data, header_of(data)->size);
    }
    __real_mem_free(data);
}
// NOLINTEND
}

#include "stand_ins/fake_heap.h"

#include <atomic>
#include <cerrno>
#include <limits>

namespace {

std::atomic<uint64_t> g_limit{std::numeric_limits<uint64_t>::max()};

bool is_too_much(uint64_t bytes) {
    if (bytes < g_limit) {
        return false;
    }
    errno = ENOMEM;
    return true;
}

} // namespace

// Visible outside: a sanitizer's library calls the wrapped names, too.
#pragma GCC visibility push(default)

extern "C" {

void *__real_malloc(size_t size);
void *__wrap_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__wrap_calloc(size_t count, size_t size);

void *__wrap_malloc(size_t size) {
    return is_too_much(size) ? nullptr : __real_malloc(size);
}

void *__wrap_calloc(size_t count, size_t size) {
    uint64_t bytes = 0;
    if (__builtin_mul_overflow(count, size, &bytes)) {
        bytes = std::numeric_limits<uint64_t>::max();
    }
    return is_too_much(bytes) ? nullptr : __real_calloc(count, size);
}

} // extern "C"

#pragma GCC visibility pop

HeapLimit::HeapLimit(uint64_t bytes) {
    g_limit = bytes;
}

HeapLimit::~HeapLimit() {
    g_limit = std::numeric_limits<uint64_t>::max();
}

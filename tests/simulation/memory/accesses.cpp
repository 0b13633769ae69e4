// What the compiler calls before each access to memory, because the product is compiled for the
// thread sanitizer but linked with this in its place.
#include "memory/accesses.h"

#include "memory/product_memory.h"
#include "memory/races.h"
#include "scheduler/scheduler.h"
#include "scheduler/settings.h"
#include "scheduler/trace.h"

#include <atomic>
#include <cstring>

namespace {

using namespace sim;

constexpr uint64_t kMostAccesses = 20000000; // of one run: more is a loop that makes no call
uint64_t g_accesses;
uint64_t g_accesses_of_step;

void count_access() {
    if (g_accesses_of_step != steps()) {
        g_accesses_of_step = steps();
        g_accesses = 0;
    }
    g_accesses += 1;
    if (g_accesses > kMostAccesses) {
        fail("a loop without end");
    }
}

// Nobody may go on between the look and the access itself.
void look_at(const void *address, size_t size, Access access, const void *from) {
    if (is_in_heap(address)) {
        must_be_usable(address, size, access == Access::kRead ? "a read" : "a write");
    }
    if (g_settings.looks_for_races) {
        races_access(address, size, access, from);
    }
}

bool is_shared(const void *address) {
    return is_in_heap(address) || is_product_variable(address); // else a thread's own stack
}

void accessed(const void *address, size_t size, Access access, const void *from) {
    if (is_outside_product()) {
        return;
    }
    count_access();
    if (is_shared(address)) {
        fine_point();
        look_at(address, size, access, from);
    }
}

void copied(const void *to, const void *from, size_t size, const void *by) {
    if (size == 0 || is_outside_product()) {
        return;
    }
    count_access();
    if (is_shared(to) || is_shared(from)) {
        fine_point();
    }
    if (is_shared(from)) {
        look_at(from, size, Access::kRead, by);
    }
    if (is_shared(to)) {
        look_at(to, size, Access::kWrite, by);
    }
}

void range(const void *address, size_t size, Access access, const void *from) {
    if (size > 0) {
        accessed(address, size, access, from);
    }
}

template <typename T>
T *atomic_access(volatile void *address, Access access, const void *from) {
    T *plain = const_cast<T *>(static_cast<volatile T *>(address));
    accessed(plain, sizeof(T), access, from);
    return plain;
}

// Relaxed ones put nothing in order.
void order(const volatile void *address, int before, bool acquires, bool releases) {
    if (is_outside_product() || before == __ATOMIC_RELAXED) {
        return;
    }
    const void *object = const_cast<const void *>(address);
    if (acquires) {
        races_acquired(object);
    }
    if (releases) {
        races_released(object);
    }
}

} // namespace

namespace sim {

void kernel_reads(const void *address, size_t size, const void *from) {
    range(address, size, Access::kRead, from);
}

void kernel_writes(const void *address, size_t size, const void *from) {
    range(address, size, Access::kWrite, from);
}

} // namespace sim

#define FROM __builtin_return_address(0)

#define ACCESS(size)                                                                               \
    void __tsan_read##size(void *a) {                                                              \
        accessed(a, size, Access::kRead, FROM);                                                    \
    }                                                                                              \
    void __tsan_write##size(void *a) {                                                             \
        accessed(a, size, Access::kWrite, FROM);                                                   \
    }                                                                                              \
    void __tsan_unaligned_read##size(void *a) {                                                    \
        accessed(a, size, Access::kRead, FROM);                                                    \
    }                                                                                              \
    void __tsan_unaligned_write##size(void *a) {                                                   \
        accessed(a, size, Access::kWrite, FROM);                                                   \
    }

#define ATOMIC_CHANGE(bits, type, name, operation)                                                 \
    type __tsan_atomic##bits##_##name(volatile void *a, type value, int order_) {                  \
        type *p = atomic_access<type>(a, Access::kAtomicWrite, FROM);                              \
        const type before = *p;                                                                    \
        *p = static_cast<type>(operation);                                                         \
        order(a, order_, true, true);                                                              \
        return before;                                                                             \
    }

#define COMPARE(bits, type, name)                                                                  \
    int __tsan_atomic##bits##_compare_exchange_##name(volatile void *a, void *expected,            \
                                                      type desired, int order_, int) {             \
        type *p = atomic_access<type>(a, Access::kAtomicWrite, FROM);                              \
        type *e = static_cast<type *>(expected);                                                   \
        order(a, order_, true, true);                                                              \
        if (*p != *e) {                                                                            \
            *e = *p;                                                                               \
            return 0;                                                                              \
        }                                                                                          \
        *p = desired;                                                                              \
        return 1;                                                                                  \
    }

#define ATOMIC(bits, type)                                                                         \
    type __tsan_atomic##bits##_load(const volatile void *a, int order_) {                          \
        type *p = atomic_access<type>(const_cast<volatile void *>(a), Access::kAtomicRead, FROM);  \
        order(a, order_, true, false);                                                             \
        return *p;                                                                                 \
    }                                                                                              \
    void __tsan_atomic##bits##_store(volatile void *a, type value, int order_) {                   \
        type *p = atomic_access<type>(a, Access::kAtomicWrite, FROM);                              \
        *p = value;                                                                                \
        order(a, order_, false, true);                                                             \
    }                                                                                              \
    ATOMIC_CHANGE(bits, type, exchange, value)                                                     \
    ATOMIC_CHANGE(bits, type, fetch_add, before + value)                                           \
    ATOMIC_CHANGE(bits, type, fetch_sub, before - value)                                           \
    ATOMIC_CHANGE(bits, type, fetch_and, before &value)                                            \
    ATOMIC_CHANGE(bits, type, fetch_or, before | value)                                            \
    COMPARE(bits, type, strong)                                                                    \
    COMPARE(bits, type, weak)                                                                      \
    type __tsan_atomic##bits##_compare_exchange_val(volatile void *a, type expected, type desired, \
                                                    int order_, int) {                             \
        type *p = atomic_access<type>(a, Access::kAtomicWrite, FROM);                              \
        const type before = *p;                                                                    \
        order(a, order_, true, true);                                                              \
        if (before == expected) {                                                                  \
            *p = desired;                                                                          \
        }                                                                                          \
        return before;                                                                             \
    }

extern "C" {

// NOLINTBEGIN: these names are the compiler's
ACCESS(1)
ACCESS(2)
ACCESS(4)
ACCESS(8)
ACCESS(16)
ATOMIC(8, uint8_t)
ATOMIC(16, uint16_t)
ATOMIC(32, uint32_t)
ATOMIC(64, uint64_t)

void __tsan_init() {
}
void __tsan_func_entry(void *) {
}
void __tsan_func_exit() {
}
void __tsan_read_range(void *a, size_t size) {
    range(a, size, Access::kRead, FROM);
}
void __tsan_write_range(void *a, size_t size) {
    range(a, size, Access::kWrite, FROM);
}
void __tsan_vptr_update(void **, void *) {
}
void __tsan_vptr_read(void **) {
}
void __tsan_atomic_thread_fence(int) {
}

void *__real_memcpy(void *to, const void *from, size_t size);
void *__real_memmove(void *to, const void *from, size_t size);
void *__real_memset(void *to, int value, size_t size);
int __real_memcmp(const void *a, const void *b, size_t size);

void *__wrap_memcpy(void *to, const void *from, size_t size) {
    copied(to, from, size, FROM);
    return __real_memcpy(to, from, size);
}
void *__wrap_memmove(void *to, const void *from, size_t size) {
    copied(to, from, size, FROM);
    return __real_memmove(to, from, size);
}
void *__wrap_memset(void *to, int value, size_t size) {
    range(to, size, Access::kWrite, FROM);
    return __real_memset(to, value, size);
}
int __wrap_memcmp(const void *a, const void *b, size_t size) {
    range(a, size, Access::kRead, FROM);
    range(b, size, Access::kRead, FROM);
    return __real_memcmp(a, b, size);
}
// NOLINTEND
}

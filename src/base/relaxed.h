// relaxed.h - shared plain integers, read and written without tearing.
//
// Some published variables are plain C integers that several threads touch: switches, counters, the
// tick count. No decision about other memory hangs on them, so relaxed order is enough.
#ifndef BASE_RELAXED_H
#define BASE_RELAXED_H

#include <atomic>

template <typename T>
T load_relaxed(T &shared) {
    return std::atomic_ref<T>(shared).load(std::memory_order_relaxed);
}

template <typename T>
void store_relaxed(T &shared, T value) {
    std::atomic_ref<T>(shared).store(value, std::memory_order_relaxed);
}

#endif

// fake_heap.h - memory that runs out when a test says so.
//
// Linked with --wrap=malloc,calloc.
#ifndef TESTS_UNIT_STAND_INS_FAKE_HEAP_H
#define TESTS_UNIT_STAND_INS_FAKE_HEAP_H

#include <cstddef>
#include <cstdint>

/** Requests for so many bytes or more fail while this stands. */
class HeapLimit {
public:
    explicit HeapLimit(uint64_t bytes);
    ~HeapLimit();
    HeapLimit(const HeapLimit &) = delete;
    HeapLimit &operator=(const HeapLimit &) = delete;
};

#endif

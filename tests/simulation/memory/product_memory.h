// product_memory.h - the memory that the product uses: its variables, its heap, its pool blocks.
//
// The heap is an area of our own, new in every run. Each 8 bytes of it are known to be unused, in
// use or released; the product is compiled so that every access to memory reports itself first (see
// accesses.cpp), so that nothing is touched after its release without being seen.
#ifndef SIMULATION_PRODUCT_MEMORY_H
#define SIMULATION_PRODUCT_MEMORY_H

#include <cstddef>
#include <cstdint>

namespace sim {

enum class Use : uint8_t { kUnused = 0, kInUse = 1, kReleased = 2 };

/** Puts the product's variables back to their start values and empties the heap. */
void reset_product_memory();

bool is_in_heap(const void *address);
bool is_product_variable(const void *address);

/** Where in its area an address lies. */
size_t heap_offset(const void *address);
size_t variable_offset(const void *address);

/** In memory that nobody has written to since it was handed out. */
constexpr uint8_t kUntouched = 0xA5;

/** Memory for a block or a case's buffers; untouched. Null never. */
void *heap_take(size_t size, const char *what);
void heap_release(void *block);
bool heap_is_start_of_block(const void *address);

/** Blocks of the heap, and in use. Pool blocks count as long as the pool has them. */
int64_t heap_blocks_in_use();

/** A block of the pool that somebody owns, by its data. */
void pool_hands_out(void *data, size_t size);
void pool_takes_back(void *data, size_t size);
bool pool_has_handed_out(const void *data);

/** For how many blocks that is so. */
int64_t pool_blocks_out();
void tell_pool_blocks_out();

Use heap_use(const void *address);

/** Fails the run when not all of these bytes are in use. */
void must_be_usable(const void *address, size_t size, const char *what);

/** While one lives, the product's code reports no accesses: it runs outside of any thread. */
class OutsideProduct {
public:
    OutsideProduct();
    ~OutsideProduct();
    OutsideProduct(const OutsideProduct &) = delete;
    OutsideProduct &operator=(const OutsideProduct &) = delete;
};
bool is_outside_product();

/** A run begins and ends: only then there are threads that access anything. */
void begin_product();
void end_product();

} // namespace sim

#endif

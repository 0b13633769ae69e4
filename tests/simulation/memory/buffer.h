// buffer.h - memory that a case hands to the product for as long as a scope lasts.
#ifndef SIMULATION_BUFFER_H
#define SIMULATION_BUFFER_H

#include "memory/product_memory.h"

namespace sim {

/** Gone at the end of its scope, also when the thread is cancelled. */
class Buffer {
public:
    explicit Buffer(size_t size) : bytes_(static_cast<uint8_t *>(heap_take(size, "buffer"))) {
    }
    ~Buffer() {
        heap_release(bytes_);
    }
    [[nodiscard]] uint8_t *get() const {
        return bytes_;
    }
    Buffer(const Buffer &) = delete;
    Buffer &operator=(const Buffer &) = delete;

private:
    uint8_t *bytes_;
};

} // namespace sim

#endif

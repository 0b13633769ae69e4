// descriptor.h - a file descriptor that closes itself.
#ifndef RUK_BOARD_DESCRIPTOR_H
#define RUK_BOARD_DESCRIPTOR_H

#include "board/cancellation.h"

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace board {

/** Owns one descriptor, or none (-1). Closing leaves errno alone. */
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_(fd) {
    }
    Descriptor(Descriptor &&other) noexcept : fd_(other.release()) {
    }
    Descriptor &operator=(Descriptor &&other) noexcept {
        reset(other.release());
        return *this;
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    ~Descriptor() {
        reset(-1);
    }

    [[nodiscard]] int get() const {
        return fd_;
    }
    [[nodiscard]] bool is_open() const {
        return fd_ >= 0;
    }
    int release() {
        return std::exchange(fd_, -1);
    }
    void reset(int fd) {
        const int old = std::exchange(fd_, fd);
        if (old >= 0) {
            // close is a cancellation point, and a cancellation that leaves a destructor ends the
            // process.
            const WithoutCancellation without_cancellation;
            const int saved = errno;
            (void)close(old); // nothing was written that a failing close could lose
            errno = saved;
        }
    }

private:
    int fd_ = -1;
};

} // namespace board

#endif

// fd.h - a file descriptor that closes itself.
#ifndef CARD_FD_H
#define CARD_FD_H

#include <unistd.h>
#include <utility>

namespace card {

class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {
    }
    Fd(Fd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {
    }
    Fd &operator=(Fd &&other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    ~Fd() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }

    [[nodiscard]] int get() const {
        return fd_;
    }
    /** Give the descriptor away. */
    int release() {
        return std::exchange(fd_, -1);
    }
    [[nodiscard]] bool valid() const {
        return fd_ >= 0;
    }

private:
    int fd_ = -1;
};

} // namespace card

#endif

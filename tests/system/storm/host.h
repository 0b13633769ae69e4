// host.h - a process that uses the transaction layer itself, as a service on the board does.
#ifndef TESTS_SYSTEM_STORM_HOST_H
#define TESTS_SYSTEM_STORM_HOST_H

#include <cstdint>
#include <pthread.h>

namespace bed {

/** The transaction layer on eth0, up for its owner's life. */
class Host {
public:
    Host();
    Host(const Host &) = delete;
    Host &operator=(const Host &) = delete;
    ~Host();

    /** Frames that the kernel dropped because the receive thread was too slow. */
    [[nodiscard]] unsigned kernel_drops() const;

private:
    pthread_t receive_ = {};
    pthread_t check_ = {};
};

/** Posts on sem_test that nobody has waited for. */
int posts();

/** The pool's blocks that are out, once that number has been reached or nothing changes. */
int64_t settled_handed_out(int64_t expected);

} // namespace bed

#endif

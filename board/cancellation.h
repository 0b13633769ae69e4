// cancellation.h - a stretch of code in which pthread_cancel waits.
#ifndef RUK_BOARD_CANCELLATION_H
#define RUK_BOARD_CANCELLATION_H

#include <pthread.h>

namespace board {

/** Holds cancellation of the calling thread back for its lifetime. */
class WithoutCancellation {
public:
    WithoutCancellation() {
        (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_);
    }
    WithoutCancellation(const WithoutCancellation &) = delete;
    WithoutCancellation &operator=(const WithoutCancellation &) = delete;
    ~WithoutCancellation() {
        (void)pthread_setcancelstate(before_, nullptr);
    }

private:
    int before_ = PTHREAD_CANCEL_ENABLE;
};

} // namespace board

#endif

// errno_keeper.h - output must not change the errno of the code that reports.
//
// A send decides by errno alone whether to send again. A report that runs into a full,
// non-blocking standard output would leave EAGAIN behind and cause a frame that nobody asked for.
#ifndef BASE_ERRNO_KEEPER_H
#define BASE_ERRNO_KEEPER_H

#include <cerrno>

class ErrnoKeeper {
public:
    ErrnoKeeper() : saved_(errno) {
    }
    ~ErrnoKeeper() {
        errno = saved_;
    }
    ErrnoKeeper(const ErrnoKeeper &) = delete;
    ErrnoKeeper &operator=(const ErrnoKeeper &) = delete;

private:
    int saved_;
};

#endif

// standard_streams.h - keeps sockets and files out of the places of the standard streams.
#ifndef BASE_STANDARD_STREAMS_H
#define BASE_STANDARD_STREAMS_H

#include <fcntl.h>
#include <initializer_list>
#include <unistd.h>

/**
 * For the first line of main: fill the standard streams that the caller closed. Otherwise what is
 * opened next takes their numbers, and log lines go out as frames. Reads find the end of a file,
 * writes fail, as they would have.
 */
inline void fill_standard_streams() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(fd, F_GETFD) < 0) {
            (void)open("/dev/null", O_RDONLY); // gets this number, the lowest that is free
        }
    }
}

#endif

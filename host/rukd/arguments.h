// arguments.h - the command line of rukd.
#ifndef RUKD_ARGUMENTS_H
#define RUKD_ARGUMENTS_H

constexpr int kMissing = 1; // exit status: something that the service needs is not there
constexpr int kUsage = 2;

struct Arguments {
    int index = 0;              // interface to serve
    const char *user = nullptr; // whose rights to take
    bool as_root = false;       // whether others may have root's
    int status = -1;            // exit status, when there is nothing to serve
};

/** Take the words apart. What needs nothing but an answer has been answered: see status. */
Arguments parse(int argc, char **argv);

#endif

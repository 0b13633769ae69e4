// link.h - the link that rukd serves, from its opening to its interface's next life.
#ifndef RUKD_LINK_H
#define RUKD_LINK_H

#include <pthread.h>

struct Link {
    int index;
    pthread_t receive = {}; // both 0 while the link is down
    pthread_t check = {};
    bool is_failing = false; // has complained that it cannot be opened
};

/** Open the link. False: standard error tells why not. */
bool open_link(Link &link);

/**
 * To be called now and then: an interface that was removed and made anew is another one to
 * the kernel, and the socket stays with the old one. Takes the link down when its interface is
 * gone, and opens it again when there is one of its name; standard output tells.
 */
void look_after(Link &link);

#endif

// watch.h - whether a check thread watches an interface's requests for time-outs.
//
// A request that nobody watches might keep its sender waiting for ever. So when the last check
// thread of an interface ends, it ends the interface's requests, and new ones fail before they are
// sent, until there is a check thread again. Hosts may look for time-outs themselves: an interface
// that never had a check thread counts as watched. Threads: any.  Locks: one leaf lock, internal.
#ifndef RAW_MSG_WATCH_H
#define RAW_MSG_WATCH_H

/** Whether the last check thread of the interface has ended. False for an index out of range. */
bool is_unwatched(int index);

/** A check thread is being started: from now on the interface is watched. */
void announce_watch(int index);

/** It could not be started. */
void revoke_watch(int index);

/** The stay of a check thread, also of one that a host has started and nobody announced. */
class Watch {
public:
    explicit Watch(int index);
    ~Watch();
    Watch(const Watch &) = delete;
    Watch &operator=(const Watch &) = delete;

private:
    int index_;
};

#endif

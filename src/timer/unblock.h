// unblock.h - signals that a parent may have left blocked: masks survive exec.
#ifndef TIMER_UNBLOCK_H
#define TIMER_UNBLOCK_H

#include <csignal>
#include <initializer_list>

/**
 * Let the calling thread take these signals, and the threads that it starts from now on.
 * Signal handlers: yes.
 */
inline void unblock(std::initializer_list<int> signals) {
    sigset_t set;
    (void)sigemptyset(&set); // none of these can fail with signals that exist
    for (const int signo : signals) {
        (void)sigaddset(&set, signo);
    }
    (void)pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

#endif

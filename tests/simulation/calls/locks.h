// locks.h - the simulated mutexes and semaphores, as the checks at the end see them.
#ifndef SIMULATION_LOCKS_H
#define SIMULATION_LOCKS_H

#include <pthread.h>
#include <semaphore.h>

namespace sim {

void reset_locks();

/** Fails the run when a mutex is still locked. */
void must_hold_no_locks();

/** In a child: what other threads had locked nobody will unlock. */
void forget_locks_of_dropped();

/** The value of a semaphore that was set up. */
int semaphore_value(const sem_t *semaphore);

/** Like pthread_cancel and pthread_join, for the threads that the product started. */
void cancel_thread(pthread_t thread);
void join_thread(pthread_t thread);

} // namespace sim

#endif

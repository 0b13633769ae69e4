// fork.h - what a child finds after fork: the memory as it was, and one thread.
#ifndef SIMULATION_FORK_H
#define SIMULATION_FORK_H

namespace sim {

/** Goes on as the child: the handlers of pthread_atfork are called, all other threads are gone. */
void fork_child();

void reset_fork();

} // namespace sim

#endif

// counters.h - SIGUSR1: the counters on standard output.
#ifndef RUKD_COUNTERS_H
#define RUKD_COUNTERS_H

/** From now on SIGUSR1 posts sem_test and asks for the counters. */
void install_counters_signal();

/** For the thread that waits on sem_test: print the counters, if they were asked for meanwhile. */
void show_counters_when_asked();

#endif

// bus_semaphore.h - the start of the semaphore that keeps block transfers apart.
#ifndef ETH_RAW_BUS_BLOCK_BUS_SEMAPHORE_H
#define ETH_RAW_BUS_BLOCK_BUS_SEMAPHORE_H

/**
 * Make the board's semaphore, free, or find the one that another process has made. Returns 0, also
 * when there is none to be had; -1 when a new one cannot be set (logged).
 */
int find_or_make_semaphore();

#endif

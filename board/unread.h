// unread.h - receivers that take nothing from their full queues.
#ifndef RUK_BOARD_UNREAD_H
#define RUK_BOARD_UNREAD_H

#include <cstdint>

namespace board {

/**
 * Whether the last message to a receiver found no room in time. Only so many receivers are
 * remembered; the one that was noted first is forgotten for the next.
 *
 * Threads: any number at once.
 */
bool is_unread(uint32_t key);

/** Note how a message to a receiver fared. */
void note_unread(uint32_t key, bool found_no_room);

} // namespace board

#endif

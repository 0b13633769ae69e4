// apipc_socket.h - where the messages of the board's modules meet: one datagram socket per address.
//
// Threads: plain functions over their arguments and the environment, any number at once.
#ifndef RUK_BOARD_APIPC_SOCKET_H
#define RUK_BOARD_APIPC_SOCKET_H

#include "board/descriptor.h"

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <span>

namespace board {

constexpr size_t kLargestMessage = 65536;

/** What belongs to an address: the socket, and the lock that its owner holds while it lives. */
struct Module {
    Descriptor lock;
    Descriptor socket;
};

/** The part of an address that selects a socket: all but the low 8 bits. */
constexpr uint32_t socket_key(int aptid) {
    return static_cast<uint32_t>(aptid) >> 8;
}

/** Opens the socket of a key and takes it for this process. Returns 0 or the errno of apipc_init.
 */
int open_module(uint32_t key, Module &module);

/**
 * Puts a message into the queue of a key's socket, which may be full for wait_ms, 0: for no time at
 * all. Returns 0 or the errno of apipc_send.
 */
int send_message(uint32_t key, std::span<const uint8_t> message, int64_t wait_ms);

/** Waits for one message. Returns its length, or -1 with the errno of the failed receive. */
ssize_t receive_message(int socket, uint8_t *buffer, size_t size);

} // namespace board

#endif

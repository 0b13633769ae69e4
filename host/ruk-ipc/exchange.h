// exchange.h - this process as a module of the board: registration, sending, waiting for replies.
//
// Uses the three functions of the message library and nothing else, so it works with the board's
// own. That library only offers to wait for ever, which a thread of its own does.
// Threads: all functions on one thread. The receiving thread runs until the process ends.
#ifndef RUK_IPC_EXCHANGE_H
#define RUK_IPC_EXCHANGE_H

#include "reply.h"
#include "request.h"

#include <cstdint>
#include <string>

namespace ipc {

/** Address of the request service of the local card. */
uint32_t service_address();

/** Address of a module of the local card. */
uint32_t own_address(uint8_t module);

/** The module id that is tried first when any will do. */
uint8_t first_free_module();

/** Directory of the message sockets, for messages to people. */
std::string message_directory();

/**
 * Register this process as a module and start to receive.
 *
 *   module  its id, or 0 for any free one; becomes the id that was taken
 *
 * Returns empty, or the reason for the failure.
 */
std::string join(uint8_t &module);

/** Send a request. Returns empty, or the reason for the failure. */
std::string send(Request &request);

struct Answer {
    bool arrived = false;
    Reply reply;
    unsigned dropped = 0;  // other messages that came while waiting
    int receive_error = 0; // errno of a failed receive, or 0
    std::string not_sent;  // why the request could not be sent
};

/** Send a request and wait for its reply. */
Answer ask(Request &request, uint32_t timeout_ms);

} // namespace ipc

#endif

// reply.h - whether a message answers a request, and what it says.
#ifndef RUK_IPC_REPLY_H
#define RUK_IPC_REPLY_H

#include "request.h"

#include <cstdint>
#include <span>
#include <string>

namespace ipc {

/** A message as it was received. */
struct Reply {
    std::vector<uint8_t> bytes; // its beginning: as much as the longest right reply has
    size_t length = 0;          // its whole length
};

constexpr size_t kLongestReply = 1440; // a read of 1400 bytes

/**
 * Whether a message is the service's reply to this request: from the service, and the request's
 * head echoed, seq included, so that the reply to an earlier request is none. A greeting echoes
 * nothing; any one from the service will do.
 */
bool answers(const Request &request, std::span<const uint8_t> message, uint32_t service);

/** Empty, or what is wrong with the length or the content of a reply that says success. */
std::string check_reply(const Request &request, const Reply &reply);

uint32_t result_of(const Reply &reply);

/** The bytes that a read brought; only of a reply that check_reply let pass. */
std::span<const uint8_t> data_of(const Reply &reply);

/** The text of a greeting; only of a reply that check_reply let pass. */
std::string greeting_of(const Reply &reply);

} // namespace ipc

#endif

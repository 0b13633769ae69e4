// reply.h - the service's own addresses and the head of its replies.
#ifndef AP_MSG_REPLY_H
#define AP_MSG_REPLY_H

#include "ap_msg/message_layout.h"

#include <span>

/** The address of a module of the card that this program runs on. */
uint32_t local_address(uint32_t module);

/** The service's own address, computed afresh: the card may be told its slot while we run. */
uint32_t own_address();

constexpr uint32_t kDone = 0;
constexpr uint32_t kFailed = 0xFFFFFFFF;

/** Turn the head of a request into that of its reply; the other fields go back as they came. */
void mark_as_reply(uint8_t *head, uint32_t result, uint32_t data_len);

/** Write the 40-byte header of the reply to a request. What the request did not have is 0. */
void write_reply_header(uint8_t *header, std::span<const uint8_t> request, uint32_t result,
                        uint32_t data_len);

/**
 * Whether a requester may get a reply. A request service, this one or another card's, may not
 * (logged): it would take the reply for a request and reply to it, and so on without end.
 */
bool takes_replies(uint32_t requester);

/**
 * Send a message to a requester: its 40-byte header and data_len bytes more. Returns what the
 * message library returns. A message that cannot be delivered is lost (logged), because a requester
 * that reads no replies must not hold up the others.
 */
int deliver(uint32_t requester, uint8_t *head, uint32_t data_len);

/** The same for a reply; -1 for who takes no replies. */
int send_reply(uint32_t requester, uint8_t *head, uint32_t data_len);

#endif

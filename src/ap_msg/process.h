// process.h - from a message that the service takes to what it does and answers.
#ifndef AP_MSG_PROCESS_H
#define AP_MSG_PROCESS_H

#include <cstdint>
#include <span>

/**
 * Whether the data that a message's len field promises are in it, and a file request's fit where
 * the file thread takes them over. If not, the reason is logged. At least 38 bytes.
 */
bool is_whole(std::span<const uint8_t> message);

/** Carry a whole message's request out; the result is that of ApipcDataProc. */
int process_request(std::span<const uint8_t> message);

#endif

// request_head.h - one request to the service, taken apart.
#ifndef AP_MSG_REQUEST_HEAD_H
#define AP_MSG_REQUEST_HEAD_H

#include "ap_msg/message_layout.h"

#include <span>
#include <string_view>

/** The fields of a request head. */
struct Request {
    int index; // interface that serves the target
    uint8_t code;
    uint8_t slot;
    uint16_t model;
    uint16_t seq;
    uint32_t addr;
    uint16_t len; // bytes of data, or bytes to read
};

/** Take the 14 bytes of a request head apart. */
Request read_request(const uint8_t *request_head);

/** Where a field of the message stands in the request head and the data behind it. */
constexpr Field in_request(Field field) {
    return {.offset = field.offset - message::kHeadSize, .width = field.width};
}

/** The text in some bytes: up to its NUL, or to their end. */
std::string_view text_in(std::span<const uint8_t> bytes);

/** Copy a file name and end it. False: no room; a cut name would be another file's (logged). */
bool copy_name(std::string_view name, std::span<char> to);

#endif

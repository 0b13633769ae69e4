// requests.h - request frames for the tests, built with offsets of their own.
//
// Neither the card's nor the tool's code is used: a wrong number in one of them shows.
#ifndef TESTS_CARD_REQUESTS_H
#define TESTS_CARD_REQUESTS_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace requests {

using Frame = std::vector<uint8_t>;

/** The twelve bytes from model to length, then the payload and the checksum. */
struct Fields {
    uint16_t model = 1;
    uint8_t slot = 3;
    uint16_t seq = 0;
    uint8_t code = 0;
    uint32_t addr = 0;
    uint16_t len = 0;
};

/** A request with its payload padded to 64 bytes and a right checksum. */
Frame build(const Fields &fields, const Frame &data = {});

Frame read(uint32_t addr, uint16_t len, uint16_t seq = 0);
Frame write_ack(uint32_t addr, const Frame &data, uint16_t seq = 0);
Frame plain_write(uint32_t addr, const Frame &data);

/** The checksum that the last two bytes of the frame should hold when `end` bytes are summed. */
uint16_t checksum(const uint8_t *frame, size_t end);

/** The little-endian value of `width` bytes. */
uint32_t value_at(const uint8_t *frame, size_t offset, size_t width);

} // namespace requests

#endif

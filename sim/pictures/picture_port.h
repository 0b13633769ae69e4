// picture_port.h - the port that takes whole pictures: size, start, pixel blocks, stop.
#ifndef CARD_PICTURE_PORT_H
#define CARD_PICTURE_PORT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "faults/counters.h"
#include "wire/bytes.h"

namespace card {

// Bytes of one picture that are kept; also the most that is saved of a region of DDR2 memory.
constexpr size_t kMaxPictureBytes = size_t{64} << 20;

/** One picture as it came: rows bottom-up without padding, each pixel blue, green, red. */
struct PortPicture {
    uint16_t width = 0;
    uint16_t height = 0;
    uint64_t received = 0;         // bytes, also those that were not kept
    std::vector<uint8_t> pixels{}; // the bytes kept, in the order of arrival
};

struct PicturePort {
    bool keep_pixels = true; // false: only count
    bool has_size = false;
    bool running = false;
    uint16_t width = 0; // for the next picture
    uint16_t height = 0;
    PortPicture picture;                 // the one that is coming in
    std::vector<PortPicture> finished{}; // for the owner of the card to take away
};

/** Bytes of a whole picture of this size. */
uint64_t port_expected_bytes(const PortPicture &picture);

/** A write to the control register. */
void port_control(PicturePort &port, Bytes data, Counters &counters);

/** A write to the data register: the next block of pixels. */
void port_pixels(PicturePort &port, Bytes data, Counters &counters);

/** "picture port: 640 x 480, 921600 bytes, complete", or how much is missing or too much. */
std::string port_text(const PortPicture &picture);

} // namespace card

#endif

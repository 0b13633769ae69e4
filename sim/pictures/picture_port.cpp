#include "pictures/picture_port.h"

#include <algorithm>
#include <numeric>
#include <utility>

#include "pictures/picture_registers.h"

namespace card {

namespace {

// Limits for finished pictures that nobody took away yet. Beyond so many bytes only the sizes of
// further pictures are kept, beyond so many pictures nothing of them.
constexpr size_t kMaxWaitingBytes = 4 * kMaxPictureBytes;
constexpr size_t kMaxWaiting = 4096;

size_t waiting_bytes(const PicturePort &port) {
    return std::accumulate(
        port.finished.begin(), port.finished.end(), size_t{0},
        [](size_t sum, const PortPicture &picture) { return sum + picture.pixels.size(); });
}

void count_picture(const PortPicture &picture, Counters &counters) {
    const uint64_t expected = port_expected_bytes(picture);
    counters.port_pictures++;
    counters.port_complete += picture.received == expected ? 1U : 0U;
    counters.port_short += picture.received < expected ? 1U : 0U;
    counters.port_long += picture.received > expected ? 1U : 0U;
}

void stop(PicturePort &port, Counters &counters) {
    port.running = false;
    count_picture(port.picture, counters);
    if (waiting_bytes(port) + port.picture.pixels.size() > kMaxWaitingBytes) {
        port.picture.pixels = {};
    }
    if (port.finished.size() < kMaxWaiting) {
        port.finished.push_back(std::move(port.picture));
    } else if (port.keep_pixels) {
        counters.picture_save_errors++;
    }
    port.picture = {};
}

// Makes all the room that the picture can need, so that no block waits for memory.
void start(PicturePort &port) {
    port.running = true;
    port.picture = {.width = port.width, .height = port.height};
    const uint64_t expected = port_expected_bytes(port.picture);
    if (port.keep_pixels && expected <= kMaxPictureBytes) {
        port.picture.pixels.reserve(static_cast<size_t>(expected));
    }
}

void set_size(PicturePort &port, Bytes record, Counters &counters) {
    if (load_le(record, port_record::kZero) != 0 || load_le(record, port_record::kEnd) != 0) {
        counters.picture_bad_controls++;
        return;
    }
    port.has_size = true;
    port.width = static_cast<uint16_t>(load_le(record, port_record::kWidth));
    port.height = static_cast<uint16_t>(load_le(record, port_record::kHeight));
}

void switch_port(PicturePort &port, uint8_t value, Counters &counters) {
    if ((value != kOn && value != kOff) || !port.has_size) {
        counters.picture_bad_controls++;
        return;
    }
    // A stop ends the picture, and so does a start in the middle of one. A start before the first
    // pixels is the same start sent again, because its acknowledgement was lost.
    if (port.running && (value == kOff || port.picture.received > 0)) {
        stop(port, counters);
    }
    if (value == kOn) {
        start(port);
    }
}

} // namespace

uint64_t port_expected_bytes(const PortPicture &picture) {
    return uint64_t{kPortPixelBytes} * picture.width * picture.height;
}

void port_control(PicturePort &port, Bytes data, Counters &counters) {
    if (data.size() == port_record::kSize) {
        set_size(port, data, counters);
    } else if (data.size() == 1) {
        switch_port(port, data[0], counters);
    } else {
        counters.picture_bad_controls++;
    }
}

void port_pixels(PicturePort &port, Bytes data, Counters &counters) {
    if (!port.running) {
        counters.port_stray_blocks++;
        return;
    }
    counters.port_bytes += data.size();
    PortPicture &picture = port.picture;
    picture.received += data.size();
    // Never beyond the room made at the start.
    const size_t room = picture.pixels.capacity() - picture.pixels.size();
    const Bytes kept = data.first(std::min(data.size(), room));
    picture.pixels.insert(picture.pixels.end(), kept.begin(), kept.end());
}

std::string port_text(const PortPicture &picture) {
    const uint64_t expected = port_expected_bytes(picture);
    const uint64_t received = picture.received;
    std::string out = "picture port: " + std::to_string(picture.width) + " x " +
                      std::to_string(picture.height) + ", " + std::to_string(received);
    if (received == expected) {
        return out + " bytes, complete";
    }
    out += " of " + std::to_string(expected) + " bytes, ";
    return received < expected ? out + std::to_string(expected - received) + " missing"
                               : out + std::to_string(received - expected) + " too many";
}

} // namespace card

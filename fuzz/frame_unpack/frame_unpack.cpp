// Received frames of any content and length.
//
// An input is one frame. It is unpacked as it is, and again with the addresses, markers and
// checksum made right, because no fuzzer guesses those; so the fields behind them are reached as
// well.
#include "eth_raw/eth_raw.h"
#include "surroundings.h"

#include <algorithm>
#include <array>
#include <memory>
#include <vector>

namespace {

using Frame = std::vector<uint8_t>;

// Written out once more, on purpose: a wrong offset in the product must not hide itself here.
constexpr std::array<uint8_t, 12> kAddresses{0x44, 0x44, 0x44, 0x44, 0x44, 0x44,
                                             0xEB, 0x90, 0xEB, 0x90, 0xEB, 0x90};
constexpr size_t kMarkers = 14;
constexpr size_t kStatus = 16;
constexpr size_t kLength = 27;
constexpr size_t kPayload = 29;
constexpr size_t kChecksum = 2; // size, at the end
constexpr uint32_t kChecksumStart = 0x5555;
constexpr size_t kLargest = 9018; // no interface delivers more

struct Fields {
    uint8_t ack = 0xA5;
    uint16_t model = 0xA5A5;
    uint8_t slot = 0xA5;
    uint8_t code = 0xA5;
    uint32_t addr = 0xA5A5A5A5;
    uint16_t seq = 0xA5A5;
    uint16_t len = 0xA5A5;
    bool operator==(const Fields &) const = default;
};

uint32_t low_first(const uint8_t *from, size_t width) {
    uint32_t value = 0;
    for (size_t i = 0; i < width; i++) {
        value |= static_cast<uint32_t>(from[i]) << (8 * i);
    }
    return value;
}

bool is_for_us(const Frame &frame) {
    return frame.size() >= kStatus &&
           std::equal(kAddresses.begin(), kAddresses.end(), frame.begin()) &&
           frame[kMarkers] == 0xAA && frame[kMarkers + 1] == 0x55;
}

uint32_t sum_of(const Frame &frame, size_t end) {
    uint32_t sum = kChecksumStart;
    for (size_t i = kStatus; i < end; i++) {
        sum += frame[i];
    }
    return sum & 0xFFFF;
}

bool is_valid(const Frame &frame) {
    if (!is_for_us(frame) || frame.size() < kPayload + kChecksum) {
        return false;
    }
    const size_t end = kPayload + low_first(&frame[kLength], 2);
    return end <= frame.size() &&
           sum_of(frame, end) == low_first(&frame[frame.size() - kChecksum], kChecksum);
}

void require_fields(const Frame &frame, const Fields &fields) {
    const Fields expected{.ack = frame[kStatus],
                          .model = static_cast<uint16_t>(low_first(&frame[17], 2)),
                          .slot = frame[19],
                          .code = frame[22],
                          .addr = low_first(&frame[23], 4),
                          .seq = static_cast<uint16_t>(low_first(&frame[20], 2)),
                          .len = static_cast<uint16_t>(low_first(&frame[kLength], 2))};
    require(fields == expected, "the header fields of a reply come out as they stand in it");
}

void unpack(const Frame &frame) {
    // Its own block of exactly that size: the address sanitizer sees a read of one byte too many.
    const std::unique_ptr<uint8_t[]> exact(new uint8_t[frame.size()]);
    std::copy(frame.begin(), frame.end(), exact.get());
    Fields got;
    const uint8_t *payload =
        RawMsgHeaderUnpack(exact.get(), static_cast<uint32_t>(frame.size()), &got.ack, &got.model,
                           &got.slot, &got.code, &got.addr, &got.seq, &got.len);
    require((payload != nullptr) == is_valid(frame), "exactly the intact replies are accepted");
    if (payload != nullptr) {
        require(payload == exact.get() + kPayload, "the payload stands behind the header");
        require_fields(frame, got);
    }
    if (!is_for_us(frame)) {
        require(got == Fields{}, "a frame that is no reply leaves the outputs alone");
    }
}

// Leaves a length that runs past the frame as it is, with a checksum that is right as far as it
// goes.
void repair(Frame &frame) {
    std::copy(kAddresses.begin(), kAddresses.end(), frame.begin());
    frame[kMarkers] = 0xAA;
    frame[kMarkers + 1] = 0x55;
    if (frame.size() < kPayload + kChecksum) {
        return;
    }
    const size_t summed_to = frame.size() - kChecksum;
    const size_t end = std::min<size_t>(kPayload + low_first(&frame[kLength], 2), summed_to);
    const uint32_t sum = sum_of(frame, end);
    frame[summed_to] = static_cast<uint8_t>(sum);
    frame[summed_to + 1] = static_cast<uint8_t>(sum >> 8);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Frame frame(data, data + std::min(size, kLargest));
    unpack(frame);
    if (frame.size() >= kStatus) {
        repair(frame);
        unpack(frame);
    }
    return 0;
}

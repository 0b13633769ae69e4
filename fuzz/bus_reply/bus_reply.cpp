// Received bus block frames of any content and length.
//
// An input is one frame. It is received as it is, and again with destination and checksum made
// right, because no fuzzer guesses those. The address and the length that are waited for are the
// frame's own, so that the data are reached.
#include "eth_raw/bus_block.h"
#include "surroundings.h"

#include <algorithm>
#include <memory>
#include <sys/socket.h>
#include <vector>

namespace {

using Frame = std::vector<uint8_t>;

// Written out once more, on purpose: a wrong offset in the product must not hide itself here.
constexpr size_t kLength = 6;
constexpr size_t kType = 11;
constexpr size_t kAddr = 16;
constexpr size_t kDataLength = 20;
constexpr size_t kData = 24;
constexpr uint32_t kShortest = 26;
constexpr uint32_t kResponseSize = 90;
constexpr size_t kLongest = 8046;
constexpr size_t kLargest = 9018; // no interface delivers more
constexpr uint8_t kReadBack = 2;
constexpr uint8_t kResponse = 3;
constexpr uint8_t kUntouched = 0xA5;

Frame g_frame; // what recvfrom gives next

uint32_t long_word(const Frame &frame, size_t offset) {
    uint32_t value = 0;
    for (size_t i = 0; i < 4; i++) {
        value |= static_cast<uint32_t>(frame[offset + i]) << (8 * i);
    }
    return value;
}

// The length that decides where the checksum stands; 0 where there is none.
uint32_t length_of(const Frame &frame) {
    if (frame.size() < kShortest) {
        return 0;
    }
    const uint32_t length = frame[kType] == kReadBack   ? long_word(frame, kLength)
                            : frame[kType] == kResponse ? kResponseSize
                                                        : 0;
    return length >= kShortest && length <= frame.size() ? length : 0;
}

uint32_t sum_of(const Frame &frame, uint32_t length) {
    uint32_t sum = 0;
    for (size_t i = kLength; i < length - 2; i++) {
        sum += frame[i];
    }
    return sum & 0xFFFF;
}

bool is_reply(const Frame &frame) {
    const uint32_t length = length_of(frame);
    return length != 0 &&
           std::all_of(frame.begin(), frame.begin() + 6, [](uint8_t b) { return b == 0x44; }) &&
           sum_of(frame, length) ==
               (frame[length - 2] | static_cast<uint32_t>(frame[length - 1]) << 8);
}

void judge(const Frame &frame, uint32_t addr) {
    // Its own block of exactly that size: the address sanitizer sees a read of one byte too many.
    const std::unique_ptr<uint8_t[]> exact(new uint8_t[frame.size()]);
    std::copy(frame.begin(), frame.end(), exact.get());
    const auto size = static_cast<uint32_t>(frame.size());
    require((judge_packet(exact.get(), size, addr) == 0) == is_reply(frame),
            "exactly the intact replies are accepted");
    require(judge_packet(exact.get(), size, addr + 1) == -1, "another address is refused");
}

int expected_result(const Frame &frame, uint32_t n) {
    if (frame.empty() || frame.size() > kLongest || !is_reply(frame)) {
        return -1;
    }
    if (frame[kType] == kResponse) {
        return frame[kData] == 0 ? 0 : -2;
    }
    return n <= length_of(frame) - kShortest ? 0 : -1;
}

void receive(const Frame &frame, uint32_t addr, uint32_t n) {
    const size_t room = std::min<size_t>(n, kLargest); // more cannot come in one frame
    const std::unique_ptr<uint8_t[]> dest(new uint8_t[room]);
    std::fill_n(dest.get(), room, kUntouched);
    sockaddr_ll nowhere{};
    EthRawTrans xfer{1, &nowhere};
    g_frame = frame;
    const int result = recv_message_func_unit(&xfer, addr, n, dest.get(), 2);
    require(result == expected_result(frame, n), "a read ends as the frame says");
    const bool has_data = result == 0 && frame[kType] == kReadBack;
    require(has_data ? std::equal(dest.get(), dest.get() + room, frame.begin() + kData)
                     : std::all_of(dest.get(), dest.get() + room,
                                   [](uint8_t byte) { return byte == kUntouched; }),
            "the caller gets the data of an accepted frame and nothing else");
}

void take(const Frame &frame) {
    const bool has_header = frame.size() >= kData;
    const uint32_t addr = has_header ? long_word(frame, kAddr) : 0;
    judge(frame, addr);
    receive(frame, addr, has_header ? long_word(frame, kDataLength) : 1);
}

void repair(Frame &frame) {
    const uint32_t length = length_of(frame);
    std::fill_n(frame.begin(), std::min<size_t>(6, frame.size()), uint8_t{0x44});
    if (length != 0) {
        const uint32_t sum = sum_of(frame, length);
        frame[length - 2] = static_cast<uint8_t>(sum);
        frame[length - 1] = static_cast<uint8_t>(sum >> 8);
    }
}

} // namespace

#pragma GCC visibility push(default)
extern "C" {

ssize_t __wrap_recvfrom(int fd, void *data, size_t size, int flags, sockaddr *from,
                        socklen_t *from_size);

ssize_t __wrap_recvfrom(int /*fd*/, void *data, size_t size, int /*flags*/, sockaddr * /*from*/,
                        socklen_t * /*from_size*/) {
    const size_t received = std::min(size, g_frame.size());
    std::copy_n(g_frame.begin(), received, static_cast<uint8_t *>(data));
    return static_cast<ssize_t>(received);
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Frame frame(data, data + std::min(size, kLargest));
    take(frame);
    repair(frame);
    take(frame);
    return 0;
}

} // extern "C"
#pragma GCC visibility pop

// The fastest card there can be: every read and every acknowledged write is answered with zeros, by
// one thread, with one recvfrom and one sendto. It looks at nothing but the code and the length.
//
//   reflector IFNAME      prints "ready" once it listens; ends by a signal
#include "eth_raw/frame_layout.h"
#include "packet_socket.h"

#include <algorithm>
#include <array>

namespace {

constexpr size_t kSmallestReply = 60; // the frame may not need filling up on its way
constexpr size_t kRoom = 9018;

using Buffer = std::array<uint8_t, kRoom>;

bool wants_answer(const Buffer &frame, size_t size) {
    return size >= request::kHeaderSize &&
           load_le(frame.data(), request::kMarker1) == kRequestMarker1 &&
           load_le(frame.data(), request::kCode) != RAW_MSG_CODE_WRITE &&
           load_le(frame.data(), request::kLen) <= kMaxPayload;
}

Buffer empty_reply() {
    Buffer frame{};
    std::copy(eth_raw_rx_header.begin(), eth_raw_rx_header.end(), frame.begin());
    std::copy(eth_raw_tx_header.begin(), eth_raw_tx_header.end(),
              frame.begin() + reply::kSource.offset);
    store_le(frame.data(), reply::kMarker1, kRequestMarker2);
    store_le(frame.data(), reply::kMarker2, kRequestMarker1);
    return frame;
}

// The data are zeros and stay zeros, so only the head counts in the sum.
size_t fill_reply(const Buffer &request_frame, Buffer &frame) {
    const uint8_t *from = request_frame.data();
    const bool is_read = load_le(from, request::kCode) == RAW_MSG_CODE_READ;
    const uint32_t len = is_read ? load_le(from, request::kLen) : 0;
    std::copy(from + request::kModel.offset, from + request::kLen.offset,
              frame.data() + reply::kModel.offset);
    store_le(frame.data(), reply::kLen, len);
    uint32_t sum = kChecksumStart;
    for (size_t i = reply::kSummedFrom; i < reply::kHeaderSize; i++) {
        sum += frame[i];
    }
    const size_t end = std::max<size_t>(reply::kHeaderSize + len, kSmallestReply - kChecksumSize);
    store_le(frame.data(), {end, kChecksumSize}, sum);
    return end + kChecksumSize;
}

void clear_checksum(Buffer &frame, size_t size) {
    store_le(frame.data(), {size - kChecksumSize, kChecksumSize}, 0);
}

void reflect(const PacketSocket &link) {
    Buffer in{};
    Buffer out = empty_reply();
    for (;;) {
        const ssize_t received = recvfrom(link.fd, in.data(), in.size(), 0, nullptr, nullptr);
        if (received < 0 || !wants_answer(in, static_cast<size_t>(received))) {
            continue;
        }
        const size_t size = fill_reply(in, out);
        if (sendto(link.fd, out.data(), size, 0, reinterpret_cast<const sockaddr *>(&link.address),
                   sizeof link.address) < 0) {
            die("reflector: send a reply");
        }
        clear_checksum(out, size);
    }
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        die_of("usage: reflector IFNAME");
    }
    require_testbed("ruktestbed0");
    const PacketSocket link = open_packet_socket(argv[1]);
    (void)puts("ready");
    (void)fflush(stdout);
    reflect(link);
}

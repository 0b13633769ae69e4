// One frame of the bus block protocol at a time: sending and receiving.
#include "eth_raw/bus_block.h"

#include "eth_raw/bus_block/bus_block_layout.h"
#include "log/write.h"

#include <sys/socket.h>

namespace {

using Buffer = std::array<uint8_t, bus_block::kBufferSize>;

enum Kind : uint32_t { kWantReadBack = 2, kWantResponse = 3 };

constexpr int kFailed = -1;
constexpr int kRefused = -2;
constexpr int kAcknowledged = 1;

// Descriptor 0 is somebody else's: that of a record that was never opened.
bool is_usable(const EthRawTrans *xfer) {
    return xfer != nullptr && xfer->sock_fd >= 1 && xfer->addr != nullptr;
}

// Builds a frame in a zeroed buffer; returns its length.
uint32_t pack(Buffer &buffer, uint8_t type, uint32_t addr, uint32_t n, const uint8_t *data) {
    const uint32_t area = bus_block::data_area(type, n);
    const uint32_t length = bus_block::frame_len(area);
    uint8_t *frame = buffer.data();
    std::copy(eth_raw_tx_header.begin(), eth_raw_tx_header.end(),
              frame + bus_block::kDestination.offset);
    store_le(frame, bus_block::kLength, length);
    store_le(frame, bus_block::kType, type);
    store_le(frame, bus_block::kEtherType, eth_raw_transfer_IP);
    store_le(frame, bus_block::kAddr, addr);
    store_le(frame, bus_block::kDataLength, n);
    std::copy_n(data, type == bus_block::kReadRequest ? area : n, frame + bus_block::kHeaderSize);
    // The sum goes as far as the data length says, also where a read request asks for more bytes
    // than it carries: the checksum is not in its place yet, so the bytes there are still zero.
    store_le(frame, bus_block::checksum_field(length),
             packet_checksum_calc(frame, bus_block::frame_len(n)));
    return length;
}

// The data have to lie in front of the checksum: bytes behind it are covered by nothing.
int take_data(const uint8_t *frame, uint32_t n, uint8_t *dest) {
    const uint32_t room = load_le(frame, bus_block::kLength) - bus_block::kMinFrame;
    if (packet_length_judge(frame, n) != 0 || n > room || (dest == nullptr && n > 0)) {
        return kFailed;
    }
    std::copy_n(frame + bus_block::kHeaderSize, n, dest);
    return 0;
}

} // namespace

int send_message_func_unit(EthRawTrans *xfer, uint32_t addr, uint32_t n, const uint8_t *data,
                           uint32_t type) {
    const bool is_known = type == bus_block::kWrite || type == bus_block::kReadRequest;
    const bool needs_data = type == bus_block::kReadRequest || n > 0;
    if (!is_usable(xfer) || !is_known || n > bus_block::kMaxData ||
        (needs_data && data == nullptr)) {
        return kFailed;
    }
    Buffer frame{};
    const uint32_t length = pack(frame, static_cast<uint8_t>(type), addr, n, data);
    const ssize_t sent = sendto(xfer->sock_fd, frame.data(), length, 0,
                                reinterpret_cast<const sockaddr *>(xfer->addr), sizeof *xfer->addr);
    return sent == static_cast<ssize_t>(length) ? 0 : kFailed;
}

int send_request_message_func(EthRawTrans *xfer, uint32_t addr, uint32_t n) {
    constexpr std::array<uint8_t, bus_block::kMinDataArea> nothing{};
    const int result =
        send_message_func_unit(xfer, addr, n, nothing.data(), bus_block::kReadRequest);
    if (result < 0) {
        LOG("send request packet failed!!!(ret : %d)\n", result);
    }
    return result;
}

int recv_message_func_unit(EthRawTrans *xfer, uint32_t addr, uint32_t n, uint8_t *dest,
                           uint32_t kind) {
    if (!is_usable(xfer)) {
        return kFailed;
    }
    Buffer buffer{};
    const uint8_t *frame = buffer.data();
    const ssize_t size = recvfrom(xfer->sock_fd, buffer.data(), buffer.size(), 0, nullptr, nullptr);
    if (size < 1 || size > static_cast<ssize_t>(bus_block::kMaxReceived) ||
        judge_packet(frame, static_cast<uint32_t>(size), addr) != 0) {
        return kFailed;
    }
    const uint32_t type = load_le(frame, bus_block::kType);
    const uint32_t flag = load_le(frame, bus_block::kAckFlag);
    if (kind == kWantResponse) {
        if (type == bus_block::kResponse && flag != bus_block::kCarriedOut) {
            LOG("%s:%d:failed, ACK flag = %d.\n", __func__, __LINE__, static_cast<int>(flag));
        }
        return type == bus_block::kResponse && flag == bus_block::kCarriedOut ? kAcknowledged
                                                                              : kFailed;
    }
    if (kind != kWantReadBack) {
        return 0;
    }
    if (type == bus_block::kReadBack) {
        return take_data(frame, n, dest);
    }
    if (flag != bus_block::kCarriedOut) {
        LOG("%s:%d:read back failed, ACK flag = %d.\n", __func__, __LINE__, static_cast<int>(flag));
        return kRefused;
    }
    return 0; // carried out, without any data
}

int recv_read_back_message_func(EthRawTrans *xfer, uint32_t addr, uint32_t n, uint8_t *dest) {
    const int result = recv_message_func_unit(xfer, addr, n, dest, kWantReadBack);
    if (result < 0 && result != kRefused) {
        LOG("%s:%d:recv_message_func_unit() failed(ret = %d).\n", __func__, __LINE__, result);
    }
    return result;
}

int recv_response_message_func(EthRawTrans *xfer, uint32_t addr, uint32_t n) {
    const int result = recv_message_func_unit(xfer, addr, n, nullptr, kWantResponse);
    return result == kAcknowledged ? 0 : kFailed;
}

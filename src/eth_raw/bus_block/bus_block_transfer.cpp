// Whole blocks: piece by piece, attempt after attempt, one transfer at a time on the board.
#include "eth_raw/bus_block.h"

#include "eth_raw/bus_block/bus_block_layout.h"
#include "log/write.h"

namespace {

constexpr int kWriteAttempts = 3;
constexpr int kReadAttempts = 10;
constexpr int kFramesPerPiece = 10; // looked at until the answer must be lost
constexpr int kRefused = -2;        // of recv_read_back_message_func

// A thread that is cancelled while it receives gives the board's lock back while it unwinds. The
// usual way out is release(): it may log, and that is a cancellation point.
class BusHeld {
public:
    BusHeld() = default;
    ~BusHeld() {
        if (held_) {
            (void)semaphore_v();
        }
    }
    BusHeld(const BusHeld &) = delete;
    BusHeld &operator=(const BusHeld &) = delete;

    int release() {
        held_ = false;
        return semaphore_v();
    }

private:
    bool held_ = true;
};

// The argument that no transfer can be made with, or null.
const char *wrong_parameter(const EthRawTrans *xfer, uint32_t length, const uint8_t *data) {
    if (xfer == nullptr || xfer->sock_fd < 1 || xfer->addr == nullptr) {
        return "xfer";
    }
    if (data == nullptr) {
        return "data";
    }
    return length > bus_block::kMaxBlock ? "length" : nullptr;
}

// One frame of several may be the answer: the socket gives every frame of the interface.
int receive_piece(EthRawTrans *xfer, uint32_t addr, uint32_t n, uint8_t *dest) {
    int result = -1;
    for (int frames = 0; frames < kFramesPerPiece && result != 0 && result != kRefused; frames++) {
        result = recv_read_back_message_func(xfer, addr, n, dest);
    }
    return result;
}

} // namespace

int write_process_func(EthRawTrans *xfer, uint32_t addr, uint32_t length, const uint8_t *data) {
    const uint32_t pieces = length / bus_block::kMaxData;
    const uint32_t whole = pieces * bus_block::kMaxData;
    if (data == nullptr && length > 0) {
        return -1;
    }
    for (uint32_t i = 0; i < pieces; i++) {
        const uint32_t offset = i * bus_block::kMaxData;
        const int result = send_message_func_unit(xfer, addr + offset, bus_block::kMaxData,
                                                  data + offset, bus_block::kWrite);
        if (result < 0) {
            LOG("%s:%d:send_message_func_unit() failed(i = %d, ret = %d).\n", __func__, __LINE__,
                static_cast<int>(i), result);
            return result;
        }
    }
    if (length == whole) {
        return 0;
    }
    const int result =
        send_message_func_unit(xfer, addr + whole, length - whole, data + whole, bus_block::kWrite);
    if (result < 0) {
        LOG("%s:%d:send_message_func_unit() failed(ret = %d).\n", __func__, __LINE__, result);
        return result;
    }
    return 0;
}

int read_process_func(EthRawTrans *xfer, uint32_t addr, uint32_t length, uint8_t *data) {
    if (data == nullptr && length > 0) {
        return -1;
    }
    uint32_t offset = 0;
    while (offset < length) {
        const uint32_t n = std::min(length - offset, bus_block::kMaxData);
        int result = send_request_message_func(xfer, addr + offset, n);
        if (result < 0) {
            LOG("%s:%d:send_request_message_func() failed(ret = %d).\n", __func__, __LINE__,
                result);
            return result;
        }
        result = receive_piece(xfer, addr + offset, n, data + offset);
        if (result == kRefused) {
            return -1;
        }
        if (result < 0) {
            LOG("%s:%d:recv_read_back_message_func() failed.\n", __func__, __LINE__);
            return -1;
        }
        offset += n; // cannot wrap: never beyond length
    }
    return 0;
}

int Write_FPGA_Bus_Block(EthRawTrans *xfer, uint32_t addr, uint32_t length, const uint8_t *data) {
    const char *wrong = wrong_parameter(xfer, length, data);
    if (wrong != nullptr) {
        LOG("%s:%d:invalid parameter(%s).\n", __func__, __LINE__, wrong);
        return -1;
    }
    const int taken = semaphore_p();
    if (taken < 0) {
        return taken;
    }
    BusHeld bus;
    int result = -1;
    for (int attempt = 0; attempt < kWriteAttempts && result != 0; attempt++) {
        result = write_process_func(xfer, addr, length, data);
    }
    if (result != 0) {
        LOG("%s:%d:write_process_func() failed.\n", __func__, __LINE__);
    }
    return bus.release(); // callers have always been given this, not the write's own result
}

int Read_FPGA_Bus_Block(EthRawTrans *xfer, uint32_t addr, uint32_t length, uint8_t *data) {
    const char *wrong = wrong_parameter(xfer, length, data);
    if (wrong != nullptr) {
        LOG("%s:%d:invalid parameter(%s).\n", __func__, __LINE__, wrong);
        return -1;
    }
    const int taken = semaphore_p();
    if (taken < 0) {
        return taken;
    }
    BusHeld bus;
    int result = -1;
    for (int attempt = 0; attempt < kReadAttempts && result != 0; attempt++) {
        result = read_process_func(xfer, addr, length, data);
    }
    if (result != 0) {
        LOG("%s:%d:read_process_func() failed.\n", __func__, __LINE__);
    }
    return bus.release(); // as for a write
}

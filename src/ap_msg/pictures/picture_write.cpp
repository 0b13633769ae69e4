// A picture file through the card's picture port.
#include "ap_msg/ap_msg.h"

#include "ap_msg/input_file.h"
#include "ap_msg/pictures/picture_file.h"
#include "ap_msg/pictures/picture_request.h"
#include "ap_msg/shown.h"
#include "base/clock.h"
#include "eth_raw/frame_layout.h"
#include "log/write.h"
#include "raw_msg/raw_msg.h"

#include <algorithm>
#include <chrono>

namespace {

constexpr uint32_t kControlRegister = 0x7040;
constexpr uint32_t kPixelRegister = 0x40000;
constexpr int32_t kControlTicks = 3;

// The record of the control register. Its first byte alone starts and stops.
constexpr Field kRun{0, 1};
constexpr Field kWidth{1, 2};
constexpr Field kHeight{3, 2};
constexpr uint32_t kControlSize = 6;
constexpr uint32_t kStart = 1;
constexpr uint32_t kStop = 0;

struct Card {
    int index;
    uint16_t model;
    uint8_t slot;
};

// What the card answers is not looked at: it shows on its screen whatever came through.
void control(const Card &card, const uint8_t *record, uint32_t len) {
    uint8_t status = 0;
    (void)RawSockSendMsgWithAckWait(card.index, card.model, card.slot, kControlRegister,
                                    RAW_MSG_CODE_WRITE_ACK, record, len, &status, kControlTicks);
}

void run(const Card &card, uint32_t start_or_stop) {
    uint8_t record[kRun.width] = {};
    store_le(record, kRun, start_or_stop);
    control(card, record, sizeof record);
}

// Every block goes to the same address: the port appends them.
void send_pixels(const Card &card, const uint8_t *pixels, uint64_t size) {
    for (uint64_t offset = 0; offset < size; offset += kMaxPayload) {
        const auto len = static_cast<uint32_t>(std::min<uint64_t>(kMaxPayload, size - offset));
        (void)RawSockSendMsg(card.index, card.model, card.slot, kPixelRegister, RAW_MSG_CODE_WRITE,
                             pixels + offset, len);
    }
}

// Not the published DDR2Write: that one writes to the memories behind an FPGA, this one to the
// card's picture port. The log lines of both carry the name. addr is only logged: there is one
// port.
int DDR2Write(int index, uint16_t model, uint8_t slot, uint32_t addr, uint16_t hor, uint16_t ver,
              const uint8_t *pixels) {
    LOG("DDR2Write begin: ver=%d hor=%d addr=0x%x\n", ver, hor, addr);
    const Card card{.index = index, .model = model, .slot = slot};
    uint8_t record[kControlSize] = {};
    store_le(record, kWidth, hor);
    store_le(record, kHeight, ver);
    control(card, record, sizeof record);
    run(card, kStart);
    send_pixels(card, pixels, bytes_of(hor, ver, kPortPixelSize));
    run(card, kStop);
    return 0;
}

int error_code(PictureError error) {
    constexpr int kNoMemory = -3;
    constexpr int kShortRead = -4;
    return error == PictureError::kNoMemory ? kNoMemory : kShortRead;
}

// A negative size is larger than any file, not smaller.
uint64_t pixel_bytes(int hor, int ver) {
    return hor < 0 || ver < 0
               ? std::numeric_limits<uint64_t>::max()
               : bytes_of(static_cast<uint64_t>(hor), static_cast<uint64_t>(ver), kPortPixelSize);
}

} // namespace

int write_file_handler(int index, int slot, int model, uint32_t addr, int hor, int ver,
                       const char *name) {
    constexpr int kNotOpened = -2;
    if (!find_file(name)) {
        return -1;
    }
    const Stopwatch watch;
    const File file = open_input(name);
    if (file == nullptr) {
        LOG("open file %s failed\n", Shown(name).text());
        return kNotOpened;
    }
    const int64_t size = size_of(file.get());
    LOG(" hor=%d, ver=%d, filesize=%d\n", hor, ver, static_cast<int>(size));
    PictureFile picture;
    const PictureError error = read_picture(file.get(), size, picture);
    if (error != PictureError::kNone) {
        return error_code(error);
    }
    const PictureFormat format = picture_format(name);
    const uint64_t offset = pixel_offset(picture, format);
    if (!holds_pixels(picture, offset, pixel_bytes(hor, ver), static_cast<uint32_t>(hor),
                      static_cast<uint32_t>(ver))) {
        return -1;
    }
    const int result = DDR2Write(index, static_cast<uint16_t>(model), static_cast<uint8_t>(slot),
                                 addr, static_cast<uint16_t>(hor), static_cast<uint16_t>(ver),
                                 picture.bytes.get() + offset);
    if (format == PictureFormat::kOther) {
        LOG("file no format\n");
    }
    LOG("total time:%f sec\n", watch.seconds());
    return result;
}

int write_file_handle_test(int index, int slot, int model, uint32_t addr, int hor, int ver,
                           const char *name) {
    constexpr int kSlotBits = 0xFF;
    constexpr int kModelBits = 0xFFFF;
    return write_file_handler(index, slot & kSlotBits, model & kModelBits, addr, hor, ver, name);
}

int write_file_handle(void * /*head*/, void *req) {
    PictureRequest picture;
    if (!read_picture_request(req, picture)) {
        return -1;
    }
    return write_file_handler(picture.to.index, picture.to.slot, picture.to.model, picture.to.addr,
                              static_cast<int>(picture.hor), static_cast<int>(picture.ver),
                              picture.name);
}

// Firmware over the link: what the card has to know about the file, then the file, block by block.
//
// Everything is told on standard output alone: an operator watches, and a log file full of progress
// is of no use.
#include "ap_msg/ap_msg.h"

#include "ap_msg/firmware/update_image.h"
#include "ap_msg/firmware/update_layout.h"
#include "ap_msg/input_file.h"
#include "board/board.h"
#include "eth_raw/frame_layout.h"
#include "raw_msg/raw_msg.h"
#include "timer/sleep.h"

#include <algorithm>
#include <cstring>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

constexpr int kTries = 1;         // a block that came twice would be appended twice
constexpr int32_t kAckTicks = 30; // 900 ms, three times: a card may be busy writing
constexpr uint8_t kNoAck = 0xFF;  // nothing came
constexpr uint8_t kTakenOver = 0; // the only acknowledgement that is no refusal
constexpr auto kBetweenTries = 10ms;

// The file names decide, wherever in the path the ending stands.
constexpr const char *kFirmwareEndings[] = {".BIN", ".bin", ".Bin"};
constexpr const char *kEncryptedEndings[] = {".dat", ".Dat", ".DAT"};

template <size_t n>
bool holds_one_of(const char *path, const char *const (&endings)[n]) {
    return std::any_of(endings, endings + n,
                       [path](const char *ending) { return strstr(path, ending) != nullptr; });
}

bool is_firmware(const char *path) {
    if (holds_one_of(path, kFirmwareEndings)) {
        return true;
    }
    printf("%s", holds_one_of(path, kEncryptedEndings)
                     ? "file is *.dat! we cann't decrypt it. stoped!\n "
                     : "stop! file is not *.dat or *.bin !\n ");
    return false;
}

// Returns the acknowledgement.
uint8_t write_register(uint8_t slot, uint32_t addr, const uint8_t *data, uint32_t len) {
    uint8_t ack = kNoAck;
    (void)RawSockSendMsgWithAckWait_Try_nTimes(kTries, update::kInterface, update::kModel, slot,
                                               addr, RAW_MSG_CODE_WRITE_ACK, data, len, &ack,
                                               kAckTicks);
    return ack;
}

struct FileInfo {
    const char *name;
    uint32_t addr;
    uint32_t len;
    std::array<uint8_t, 4> value;
};

// In the order in which the card wants them.
std::array<FileInfo, 7> file_info(uint32_t image_size, uint16_t device_type, uint8_t slot) {
    std::array<uint8_t, 4> size{};
    store_le(size.data(), {.offset = 0, .width = size.size()}, image_size);
    const auto type_high = static_cast<uint8_t>(device_type >> 8);
    const auto type_low = static_cast<uint8_t>(device_type);
    return {{
        {"total_files_size", update::kTotalFilesSize, 4, size},
        {"files_recv_len", update::kFilesRecvLen, 4, {0}},
        {"total_files_count", update::kTotalFilesCount, 4, {1}},
        {"current_file_size", update::kCurrentFileSize, 4, size},
        {"v", update::kVersion, 1, {0}},
        {"device_type", update::kDeviceType, 2, {type_high, type_low}},
        {"card_modelid", update::kCardModelId, 3, {0, 0, slot}},
    }};
}

bool send_file_info(uint32_t image_size, uint16_t device_type, uint8_t slot) {
    for (const FileInfo &field : file_info(image_size, device_type, slot)) {
        if (write_register(slot, field.addr, field.value.data(), field.len) != kTakenOver) {
            printf("send file_info.%s err!", field.name);
            return false;
        }
    }
    return true;
}

// The number is overwritten in place. Behind a pipe, and without a line end, it shows by flushing.
void show_progress(uint32_t sent, uint32_t total, int &shown) {
    constexpr uint64_t kAll = 100;
    const int percent = static_cast<int>(kAll * sent / total);
    printf(shown < 0 ? "now sended %2d%%" : "\b\b\b%2d%%", percent);
    if (percent != shown) {
        (void)fflush(stdout);
    }
    shown = percent;
}

int send_blocks(FILE *image, uint32_t total, uint8_t slot) {
    uint8_t block[update::kBlockSize];
    int shown = -1;
    for (uint32_t sent = 0; sent < total;) {
        const uint32_t len = std::min(update::kBlockSize, total - sent);
        if (fread(block, 1, len, image) != len) {
            printf("file read err！");
            return -1;
        }
        const uint8_t ack = write_register(slot, update::kDataRegister, block, len);
        if (ack != kTakenOver) {
            printf("err! ack = 0X%02X\r\n ", ack);
            return -1;
        }
        sent += len;
        show_progress(sent, total, shown);
    }
    return 0;
}

int send_image(Image state, uint32_t size, uint8_t slot) {
    printf("begin open file! \r\n ");
    const File image = state == Image::kMissing ? nullptr : open_input(update::kImageFile);
    if (image == nullptr) {
        printf(" file open fail");
        return -1;
    }
    printf(" file open success！");
    return send_blocks(image.get(), size, slot);
}

int update_card(const char *path, uint16_t device_type, uint8_t slot) {
    if (access(path, F_OK) != 0) {
        printf("firmware date in \"path_firm\" is not exist! \r\n ");
        return -1;
    }
    printf("srcfile size is %ld Bytes! \r\n ", get_file_size(path));
    if (!is_firmware(path)) {
        return 0; // a refusal has always been a success
    }
    printf("file is *.bin! we will add 256B Head .\n ");
    const Image image = make_image(path);
    if (image == Image::kBroken) {
        return -1; // no card gets half a firmware
    }
    (void)my_system("sync"); // the transfer works without it
    const auto size = static_cast<uint32_t>(get_file_size(update::kImageFile));
    if (!send_file_info(size, device_type, slot)) {
        return -1;
    }
    const int result = send_image(image, size, slot);
    printf("\nfile is close!");
    return image == Image::kWhole ? result : -1;
}

} // namespace

int RawSockSendMsgWithAckWait_Try_nTimes(int tries, int index, int model, int slot, uint32_t addr,
                                         uint8_t code, const uint8_t *data, uint32_t length,
                                         uint8_t *ack, int32_t wait) {
    int result = -1;
    for (int i = 0; i < tries; i++) {
        if (i > 0) {
            sleep_full(kBetweenTries);
        }
        result = RawSockSendMsgWithAckWait(index, static_cast<uint16_t>(model),
                                           static_cast<uint8_t>(slot), addr, code, data, length,
                                           ack, wait);
        if (*ack < kNoAck) {
            break;
        }
    }
    return result;
}

int sys_update(const char *path, int16_t device_type, uint8_t slot) {
    const int result = update_card(path, static_cast<uint16_t>(device_type), slot);
    (void)fflush(stdout); // the last words have no line end
    return result;
}

int update_firmware(int slot, int device_type, const char *path) {
    return sys_update(path, static_cast<int16_t>(device_type), static_cast<uint8_t>(slot));
}

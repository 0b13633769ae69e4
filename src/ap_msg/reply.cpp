#include "ap_msg/reply.h"

#include "ap_msg/ap_msg.h"
#include "base/errno_keeper.h"
#include "board/board.h"
#include "log/write.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

uint32_t local_address(uint32_t module) {
    return (static_cast<uint32_t>(apcard_bit_self()) << message::kSlotShift) | module;
}

uint32_t own_address() {
    return local_address(message::kOwnModule);
}

void mark_as_reply(uint8_t *head, uint32_t result, uint32_t data_len) {
    store_le(head, message::kAptid, own_address());
    store_le(head, message::kSource, message::kOwnModuleId);
    store_le(head, message::kResult, result);
    store_le(head, message::kDataLen, data_len);
}

void write_reply_header(uint8_t *header, std::span<const uint8_t> request, uint32_t result,
                        uint32_t data_len) {
    memset(header, 0, message::kHeaderSize);
    memcpy(header, request.data(), std::min<size_t>(request.size(), message::kHeaderSize));
    mark_as_reply(header, result, data_len);
}

bool takes_replies(uint32_t requester) {
    constexpr uint32_t kWithoutSlot = 0x00FFFF00;
    const bool is_request_service = (requester & kWithoutSlot) == message::kOwnModule;
    if (is_request_service) {
        LOG("ap_msg: reply to 0x%x: a request service, not sent\n", requester);
    }
    return !is_request_service;
}

int deliver(uint32_t requester, uint8_t *head, uint32_t data_len) {
    const ErrnoKeeper keep_errno; // the next frame's sending decides by it
    errno = 0;                    // the board's own library may leave it alone
    const int sent = ApipcDataSend(static_cast<int>(requester), head, data_len);
    if (sent < 0) {
        LOG("ap_msg: reply to 0x%x: not delivered, result %d, %s\n", requester, sent,
            errno != 0 ? strerror(errno) : "no reason given");
    }
    return sent;
}

int send_reply(uint32_t requester, uint8_t *head, uint32_t data_len) {
    return takes_replies(requester) ? deliver(requester, head, data_len) : -1;
}

int write_file_resp(void *head, int result) {
    auto *header = static_cast<uint8_t *>(head);
    const uint32_t requester = load_le(header, message::kAptid);
    mark_as_reply(header, static_cast<uint32_t>(result), 0);
    const int sent = send_reply(requester, header, 0);
    LOG("write file response %s\n", result == 0 ? "ok" : "not ok");
    return sent;
}

#include "ap_msg/process.h"

#include "ap_msg/ap_msg.h"
#include "ap_msg/handover.h"
#include "ap_msg/reply.h"
#include "ap_msg/request_head.h"
#include "ap_msg/shown.h"
#include "eth_raw/frame_layout.h"
#include "log/write.h"
#include "raw_msg/raw_msg.h"

#include <algorithm>

namespace {

constexpr int kBroadcast = 15;
constexpr int32_t kWriteTicks = 6;

// A request on its way through: where it came from, and its parts.
struct Work {
    std::span<const uint8_t> message;
    Request request;
    uint32_t requester;

    [[nodiscard]] const uint8_t *data() const {
        return message.data() + message::kDataOffset;
    }
};

Work take_apart(std::span<const uint8_t> message) {
    return {.message = message,
            .request = read_request(message.data() + message::kHeadSize),
            .requester = load_le(message.data(), message::kAptid)};
}

constexpr uint8_t kNearSlot = 1; // its card answers sooner than the others
constexpr int32_t kNearReadTicks = 3;
constexpr int32_t kReadTicks = 6;

int32_t read_ticks(uint8_t slot) {
    return slot == kNearSlot ? kNearReadTicks : kReadTicks;
}

// The reply is built before the read, which then lays its bytes over the request's data in it.
int read_register(const Work &work) {
    uint8_t *data = ApMsgBuffGet(kMaxPayload);
    if (data == nullptr) {
        LOG("RawMsgBuffGet fail\n");
        return -1;
    }
    uint8_t *head = ApMsgBuffHeadGet(data);
    write_reply_header(head, work.message, kFailed, 0);
    const Request &request = work.request;
    uint32_t read_len = 0;
    if (RawSockSendMsgWithReadWait(request.index, request.model, request.slot, request.addr,
                                   RAW_MSG_CODE_READ, request.len, data, &read_len,
                                   read_ticks(request.slot)) == 0) {
        mark_as_reply(head, kDone, read_len);
        (void)send_reply(work.requester, head, read_len); // nobody to tell
        LOG("RawSockSendMsgWithReadWait response ok\n");
    } else {
        (void)send_reply(work.requester, head, 0);
        LOG("RawSockSendMsgWithReadWait response not ok\n");
    }
    ApMsgBuffFree(data);
    return 0;
}

void write_plain(const Work &work, const char *failure) {
    const Request &request = work.request;
    if (RawSockSendMsg(request.index, request.model, request.slot, request.addr, RAW_MSG_CODE_WRITE,
                       work.data(), request.len) != 0) {
        LOG("%s", failure);
    }
}

void write_acknowledged(const Work &work) {
    const Request &request = work.request;
    uint8_t status = 0;
    // 0 as soon as the card has answered: what status it gave does not reach the requester.
    const bool answered =
        RawSockSendMsgWithAckWait(request.index, request.model, request.slot, request.addr,
                                  RAW_MSG_CODE_WRITE_ACK, work.data(), request.len, &status,
                                  kWriteTicks) == 0;
    uint8_t header[message::kHeaderSize];
    write_reply_header(header, work.message, answered ? kDone : kFailed, 0);
    (void)send_reply(work.requester, header, 0); // nobody to tell
    LOG("RawSockSendMsgWithAckWait response %s\n", answered ? "ok" : "not ok");
}

// The low addresses of the near card never acknowledge. Only the local peer module insists.
bool goes_out_plain(const Work &work) {
    constexpr uint32_t kTopBits = 0xF0000000;
    const Request &request = work.request;
    return work.requester != local_address(message::kPeerModule) && request.slot == kNearSlot &&
           request.model == 0 && (request.addr & kTopBits) == 0;
}

int write_register(const Work &work) {
    write_plain(work, "ApipcDataProc RawSockSendMsg fail\n");
    return 0;
}

int write_register_with_ack(const Work &work) {
    if (goes_out_plain(work)) {
        write_plain(work, "ApipcDataProc RawSockSendMsgWithAck fail\n");
    } else {
        write_acknowledged(work);
    }
    return 0;
}

int queue_file_request(const Work &work) {
    hand_over(work.message.first(message::kDataOffset + work.request.len));
    return 0;
}

int show_text(const Work &work) {
    const std::string_view text = text_in(work.message.subspan(message::kDataOffset));
    LOG("++++++++++recv msg: ' %s ' \n", Shown(text).text());
    return 0;
}

int greet(const Work &work) {
    (void)show_text(work);
    if (takes_replies(work.requester)) {
        apipc_first(static_cast<int>(work.requester));
    }
    return 0;
}

struct Service {
    uint8_t code;
    bool carries_data; // len counts bytes of the request, not of the reply
    bool is_file_request;
    int (*run)(const Work &work);
};
constexpr Service kServices[] = {
    {message::kCodeRead, false, false, read_register},
    {message::kCodeWrite, true, false, write_register},
    {message::kCodeWriteAck, true, false, write_register_with_ack},
    {message::kCodePutPicture, true, true, queue_file_request},
    {message::kCodeGetPicture, true, true, queue_file_request},
    {message::kCodeUpdate, true, true, queue_file_request},
    {message::kCodeGreeting, false, false, greet},
};
constexpr Service kUnknown{0, false, false, show_text};

const Service &service_for(uint8_t code) {
    const auto *found = std::find_if(std::begin(kServices), std::end(kServices),
                                     [code](const Service &row) { return row.code == code; });
    return found != std::end(kServices) ? *found : kUnknown;
}

} // namespace

bool is_whole(std::span<const uint8_t> message) {
    const Request request = read_request(message.data() + message::kHeadSize);
    const Service &service = service_for(request.code);
    if (service.carries_data && message.size() - message::kDataOffset < request.len) {
        LOG("ap_msg: message of %d bytes: its %d bytes of data end behind it\n",
            static_cast<int>(message.size()), request.len);
        return false;
    }
    if (service.is_file_request && !fits_handover(request.len)) {
        LOG("ap_msg: message of %d bytes: more than a file request's %d bytes of data\n",
            static_cast<int>(message.size()), static_cast<int>(kLongestHandover));
        return false;
    }
    return true;
}

int process_request(std::span<const uint8_t> message) {
    const Work work = take_apart(message);
    const Request &request = work.request;
    LOG("aptid:0x%x index:%d slot:%x model:%x seq:%d code:%x addr:0x%x len:%d\n", work.requester,
        request.index, request.slot, request.model, request.seq, request.code, request.addr,
        request.len);
    if (request.index == kBroadcast) {
        LOG("broadcast not support\n");
        return 0;
    }
    return service_for(request.code).run(work);
}

// The request head stands in the message; its len is all that tells how much there is.
int ApipcDataProc(void *msg, void *req) {
    const uint16_t len = read_request(static_cast<const uint8_t *>(req)).len;
    const std::span<const uint8_t> message(static_cast<const uint8_t *>(msg),
                                           message::kDataOffset + size_t{len});
    return is_whole(message) ? process_request(message) : 0;
}

// The reports that a host may send about a request's outcome. Published beside the send operations;
// they stand here, above them, because they build service messages.
#include "raw_msg/raw_msg.h"

#include "ap_msg/ap_msg.h"
#include "ap_msg/reply.h"
#include "base/hex_dump.h"
#include "base/stdout_guard.h"
#include "eth_raw/frame_layout.h"

#include <cstdio>
#include <span>

namespace {

constexpr uint32_t kReportMessageId = 14;

void print_header(std::span<const uint8_t> header) {
    const StdoutGuard whole_dump;
    print_hex(header);
    printf("\n end ");
}

void print_write_report(std::span<const uint8_t> header, int result) {
    const StdoutGuard whole_report;
    printf("WriteAckResultReport result:%d\n", result);
    print_header(header);
    printf("\n");
}

} // namespace

void WriteAckResultReport(RawMsgQueueNode *record, int result) {
    uint8_t report[message::kHeaderSize] = {};
    store_le(report, message::kAptid, own_address());
    store_le(report, message::kDataLen, message::kHeaderSize);
    store_le(report, message::kResult, static_cast<uint32_t>(result));
    store_le(report, message::kClass, message::kServiceClass);
    store_le(report, message::kId, kReportMessageId);
    store_le(report, message::kTarget,
             static_cast<uint32_t>(GetIdByIndex(static_cast<int>(record->index))));
    store_le(report, message::kCode, message::kCodeWriteAck);
    store_le(report, message::kAddr, record->addr);

    print_write_report(report, result);
    (void)ApipcDataSendAck(static_cast<int>(record->requester), report); // nobody to tell
}

void ReadResultReport(RawMsgQueueNode *record, int result) {
    uint8_t *report = ApMsgBuffHeadGet(record->read_buf);
    // Of a reply that no read buffer can hold nothing was copied.
    const uint32_t len = record->recv_len <= kMaxPayload ? record->recv_len : 0;
    store_le(report, message::kResult, static_cast<uint32_t>(result));
    store_le(report, message::kDataLen, len + message::kHeaderSize);
    store_le(report, message::kAptid, own_address());
    store_le(report, message::kAddr, record->addr);
    store_le(report, message::kCode, message::kCodeRead);
    store_le(report, message::kTarget,
             static_cast<uint32_t>(GetIdByIndex(static_cast<int>(record->index))));
    store_le(report, message::kLen, len);

    print_header({report, message::kHeaderSize});
    const int requester = static_cast<int>(record->requester);
    if (result == 0) {
        (void)ApipcDataSend(requester, report, len); // nobody to tell
    } else {
        (void)ApipcDataSendAck(requester, report);
    }
}

// A request to update a card's firmware: by the device's own programming tool, or over the link.
#include "ap_msg/ap_msg.h"

#include "ap_msg/firmware/shell_command.h"
#include "ap_msg/input_file.h"
#include "ap_msg/reply.h"
#include "ap_msg/request_head.h"
#include "ap_msg/shown.h"
#include "log/write.h"

#include <algorithm>
#include <iterator>

namespace {

// The kinds of card that the programming tool writes to; the blanks are part of its command lines.
struct ToolKind {
    uint32_t kind;
    const char *before; // the file name
    const char *after;
};
constexpr ToolKind kToolKinds[] = {
    {0x16, "/usr/telva/bin/mcu_isp -B input  -C 0x31 -b ", " "},
    {0x17, "/usr/telva/bin/mcu_isp -B output  -C 0x31 -b ", " "},
    {0x18, "/usr/telva/bin/mcu_isp -B vpu     -C 0x31 -b ", " -r 0x00 "},
};

constexpr uint32_t kFirstLinkKind = 0x19; // cards that take their firmware over the link
constexpr uint32_t kLastLinkKind = 0x1E;

constexpr size_t kKindSize = message::kUpdateName - message::kDataOffset;

struct UpdateRequest {
    Request to; // the target
    uint32_t kind;
    char name[message::kFileRequestArea];
};

// False: no kind, or too long a name (logged).
bool read_update_request(const uint8_t *req, UpdateRequest &request) {
    request.to = read_request(req);
    if (request.to.len < kKindSize) {
        LOG("ap_msg: update request: %d bytes of data, %d are needed for the kind\n",
            request.to.len, static_cast<int>(kKindSize));
        return false;
    }
    request.kind = load_le(req, in_request(message::kUpdateKind));
    const std::span<const uint8_t> data(req + message::kRequestHeadSize, request.to.len);
    return copy_name(text_in(data.subspan(kKindSize)), request.name);
}

int run_tool(const ToolKind &row, const char *name) {
    const ShellCommand command(row.before, name, row.after);
    if (command.line() != nullptr) {
        LOG("    cmdstr=%s \n\n", Shown(command.line()).text());
    }
    return command.run();
}

int carry_out(const UpdateRequest &request) {
    LOG("update slot:%d model:0x%x type:0x%x file:%s\n", request.to.slot, request.to.model,
        request.kind, Shown(request.name).text());
    const auto *tool =
        std::find_if(std::begin(kToolKinds), std::end(kToolKinds),
                     [&request](const ToolKind &row) { return row.kind == request.kind; });
    if (tool != std::end(kToolKinds)) {
        return run_tool(*tool, request.name);
    }
    if (request.kind >= kFirstLinkKind && request.kind <= kLastLinkKind) {
        return sys_update(request.name, static_cast<int16_t>(request.to.model), request.to.slot);
    }
    LOG("    no file need to update in round 1... \n");
    return 0;
}

} // namespace

int update_file_handle(void *head, void *req) {
    UpdateRequest request{};
    const bool can_be_done =
        read_update_request(static_cast<const uint8_t *>(req), request) && find_file(request.name);
    const int result = can_be_done ? carry_out(request) : -1;
    uint8_t kind[kKindSize] = {};
    store_le(kind, {.offset = 0, .width = kKindSize}, request.kind);
    (void)update_file_resp(head, kind, result); // a requester that is gone needs no reply
    return result;
}

int update_file_resp(void *head, void *data, int result) {
    constexpr uint32_t kDataSize = 4; // spare bytes included, as every message has them
    const HeapBytes reply = heap_bytes(message::kHeaderSize + kDataSize);
    if (reply == nullptr) {
        return -1;
    }
    const auto *request = static_cast<const uint8_t *>(head);
    std::copy_n(request, message::kDataOffset, reply.get());
    mark_as_reply(reply.get(), static_cast<uint32_t>(result), 0);
    std::copy_n(static_cast<const uint8_t *>(data), kKindSize, reply.get() + message::kDataOffset);
    const uint32_t requester = load_le(request, message::kAptid);
    const int sent = send_reply(requester, reply.get(), kDataSize);
    LOG("write file response %s\n", result == 0 ? "ok" : "not ok");
    return sent;
}

#include "ap_msg/request_head.h"

#include "ap_msg/ap_msg.h"
#include "ap_msg/shown.h"
#include "log/write.h"

#include <algorithm>

Request read_request(const uint8_t *request_head) {
    const auto field = [&](Field of_message) {
        return load_le(request_head, in_request(of_message));
    };
    return {.index = GetIndexById(static_cast<int>(field(message::kTarget))),
            .code = static_cast<uint8_t>(field(message::kCode)),
            .slot = static_cast<uint8_t>(field(message::kSlot)),
            .model = static_cast<uint16_t>(field(message::kModel)),
            .seq = static_cast<uint16_t>(field(message::kSeq)),
            .addr = field(message::kAddr),
            .len = static_cast<uint16_t>(field(message::kLen))};
}

std::string_view text_in(std::span<const uint8_t> bytes) {
    const auto end = std::find(bytes.begin(), bytes.end(), 0);
    return {reinterpret_cast<const char *>(bytes.data()), static_cast<size_t>(end - bytes.begin())};
}

bool copy_name(std::string_view name, std::span<char> to) {
    if (name.size() >= to.size()) {
        LOG("ap_msg: file name '%s': longer than %d characters\n", Shown(name).text(),
            static_cast<int>(to.size() - 1));
        return false;
    }
    *std::copy(name.begin(), name.end(), to.begin()) = '\0';
    return true;
}

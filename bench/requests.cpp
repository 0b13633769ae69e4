#include "requests.h"

#include "eth_raw/eth_raw.h"
#include "eth_raw/frame_layout.h"

#include <algorithm>

std::vector<uint8_t> make_request(uint8_t code, uint32_t addr, uint16_t seq, uint32_t len) {
    std::vector<uint8_t> frame(request_frame_len(padded_payload(code, len)));
    uint8_t *payload = frame.data() + request::kHeaderSize;
    if (code != RAW_MSG_CODE_READ) {
        std::fill_n(payload, len, kData);
    }
    (void)RawMsgHeaderPack(kModel, kSlot, code, addr, seq, &payload, static_cast<uint16_t>(len));
    return frame;
}

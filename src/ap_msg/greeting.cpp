// Messages that the service sends of itself.
#include "ap_msg/ap_msg.h"

#include "ap_msg/reply.h"
#include "eth_raw/frame_layout.h"
#include "log/write.h"

#include <cstring>

namespace {

constexpr char kGreeting[] = "Hello, I am ruk module!";
constexpr uint32_t kGreetingText = 32; // bytes of the text field, zeros behind the text
constexpr uint32_t kGreetingData = 72; // what peers expect to be told, and to receive
static_assert(sizeof kGreeting <= kGreetingText);

constexpr uint32_t kTestData = 40; // announced by the test request
constexpr uint32_t kTestAddr = 0x00010000;
constexpr uint32_t kTestLen = 10;

uint8_t *get_buffer() {
    uint8_t *data = ApMsgBuffGet(kMaxPayload);
    if (data == nullptr) {
        LOG("RawMsgBuffGet fail");
    }
    return data;
}

} // namespace

void apipc_first(int aptid) {
    uint8_t *data = get_buffer();
    if (data == nullptr) {
        return;
    }
    uint8_t *head = ApMsgBuffHeadGet(data);
    store_le(head, message::kDataLen, kGreetingData);
    store_le(head, message::kAptid, own_address());
    store_le(head, message::kId, message::kGreetingId);
    store_le(head, message::kClass, message::kServiceClass);
    store_le(head, message::kCode, message::kCodeGreeting);
    store_le(head, message::kLen, kGreetingText);
    memcpy(data, kGreeting, sizeof kGreeting);
    const int sent = deliver(static_cast<uint32_t>(aptid), head, kGreetingData);
    LOG("send ' %s ' ret : %d\n", kGreeting, sent);
    ApMsgBuffFree(data);
}

void apipc_test(void) {
    uint8_t *data = get_buffer();
    if (data == nullptr) {
        return;
    }
    uint8_t *head = ApMsgBuffHeadGet(data);
    store_le(head, message::kDataLen, kTestData);
    store_le(head, message::kAptid, own_address());
    store_le(head, message::kTarget, static_cast<uint32_t>(GetIdByIndex(0)));
    store_le(head, message::kAddr, kTestAddr);
    store_le(head, message::kLen, kTestLen);
    const int sent =
        ApipcDataSend(static_cast<int>(local_address(message::kTestModule)), head, kTestLen);
    LOG("send ret : %d\n", sent);
    ApMsgBuffFree(data);
}

// Messages of any content and length to the request service.
//
// An input is what the link makes of a request (a byte: 0 answers, any other does not; two bytes:
// how much a read brings) and then a message. The message is taken as it is, and again with the
// kind and class of a request, because most mutations lose them. What has to happen is worked out
// here a second time, from docs/service.md.
#include "ap_msg/ap_msg.h"
#include "log/log.h"
#include "mem/mem.h"
#include "mem/pool_counts.h"
#include "raw_msg/raw_msg.h"
#include "surroundings.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

// Written out once more, on purpose: a wrong offset in the product must not hide itself here.
constexpr size_t kDataLen = 8;
constexpr size_t kResult = 12;
constexpr size_t kKind = 16;
constexpr size_t kClass = 18;
constexpr size_t kSource = 24;
constexpr size_t kCode = 26;
constexpr size_t kSlot = 27;
constexpr size_t kModel = 28;
constexpr size_t kAddr = 32;
constexpr size_t kLen = 36;
constexpr size_t kData = 38;
constexpr size_t kHeader = 40;
constexpr size_t kGreeting = 112;
constexpr size_t kLongestFileRequest = 1010;

constexpr int kCardSlot = 0x85;
constexpr uint32_t kOwn = 0x850A3B00;
constexpr uint32_t kPeer = 0x850A3C00;
constexpr uint32_t kFailed = 0xFFFFFFFF;
constexpr uint8_t kFilling = 0x77; // what every read brings

enum class Kind { kWrite, kWriteAck, kRead };

struct LinkCall {
    Kind kind;
    uint16_t model;
    uint8_t slot;
    uint32_t addr;
    uint32_t len;
    int32_t ticks; // 0: nothing is waited for
    Bytes data;

    bool operator==(const LinkCall &) const = default;
};

struct Sent {
    uint32_t aptid;
    Bytes bytes;

    bool operator==(const Sent &) const = default;
};

struct Happened {
    std::vector<LinkCall> calls;
    std::vector<Sent> sent;
    int handed_over = 0;

    bool operator==(const Happened &) const = default;
};

Happened g_happened;
bool g_answers;       // what the link makes of a request
uint32_t g_reply_len; // how much a read brings, at most a frame's payload

uint32_t field(const Bytes &bytes, size_t offset, size_t width) {
    uint32_t value = 0;
    for (size_t i = 0; i < width; i++) {
        value |= static_cast<uint32_t>(bytes[offset + i]) << (8 * i);
    }
    return value;
}

void set_field(Bytes &bytes, size_t offset, size_t width, uint32_t value) {
    for (size_t i = 0; i < width; i++) {
        bytes[offset + i] = static_cast<uint8_t>(value >> (8 * i));
    }
}

bool is_one_of(uint32_t code, std::initializer_list<uint32_t> codes) {
    return std::find(codes.begin(), codes.end(), code) != codes.end();
}

bool is_request(const Bytes &message) {
    if (message.size() < kData || field(message, kKind, 2) > 1 || field(message, kClass, 2) != 28) {
        return false;
    }
    const uint32_t code = field(message, kCode, 1);
    const uint32_t len = field(message, kLen, 2);
    if (is_one_of(code, {0x01, 0x02, 0xEE, 0xDD, 0xEF}) && message.size() - kData < len) {
        return false;
    }
    return !is_one_of(code, {0xEE, 0xDD, 0xEF}) || len <= kLongestFileRequest;
}

Sent reply_to(const Bytes &message, uint32_t result, uint32_t data_len) {
    Bytes reply(message.begin(),
                message.begin() + static_cast<ptrdiff_t>(std::min(message.size(), kHeader)));
    reply.resize(kHeader);
    set_field(reply, 0, 4, kOwn);
    set_field(reply, kDataLen, 4, data_len);
    set_field(reply, kResult, 4, result);
    reply[kSource] = 0x3B;
    return {field(message, 0, 4), reply};
}

LinkCall call_of(Kind kind, const Bytes &message, int32_t ticks) {
    LinkCall call{.kind = kind,
                  .model = static_cast<uint16_t>(field(message, kModel, 2)),
                  .slot = static_cast<uint8_t>(field(message, kSlot, 1)),
                  .addr = field(message, kAddr, 4),
                  .len = field(message, kLen, 2),
                  .ticks = ticks,
                  .data = {}};
    if (kind != Kind::kRead) {
        const auto begin = message.begin() + kData;
        call.data.assign(begin, begin + static_cast<ptrdiff_t>(call.len));
    }
    return call;
}

void expect_read(const Bytes &message, Happened &expected) {
    const int32_t ticks = field(message, kSlot, 1) == 1 ? 3 : 6;
    expected.calls.push_back(call_of(Kind::kRead, message, ticks));
    if (!g_answers) {
        expected.sent.push_back(reply_to(message, kFailed, 0));
        return;
    }
    Sent reply = reply_to(message, 0, g_reply_len);
    reply.bytes.resize(kHeader + g_reply_len); // zeros behind what the card sent
    std::fill_n(reply.bytes.begin() + kData, g_reply_len, kFilling);
    expected.sent.push_back(reply);
}

void expect_acknowledged_write(const Bytes &message, Happened &expected) {
    const bool is_near = field(message, kSlot, 1) == 1 && field(message, kModel, 2) == 0 &&
                         field(message, kAddr, 4) < 0x10000000;
    if (is_near && field(message, 0, 4) != kPeer) {
        expected.calls.push_back(call_of(Kind::kWrite, message, 0));
        return;
    }
    expected.calls.push_back(call_of(Kind::kWriteAck, message, 6));
    expected.sent.push_back(reply_to(message, g_answers ? 0 : kFailed, 0));
}

Sent greeting_to(const Bytes &message) {
    Bytes greeting(kGreeting);
    set_field(greeting, 0, 4, kOwn);
    set_field(greeting, kDataLen, 4, 72);
    set_field(greeting, kClass, 2, 28);
    set_field(greeting, 20, 4, 46);
    set_field(greeting, kCode, 1, 0xF0);
    set_field(greeting, kLen, 2, 32);
    constexpr char kText[] = "Hello, I am ruk module!";
    std::copy(std::begin(kText), std::end(kText), greeting.begin() + kData);
    return {field(message, 0, 4), greeting};
}

Happened expected_of_request(const Bytes &message) {
    Happened expected;
    switch (field(message, kCode, 1)) {
    case 0x00:
        expect_read(message, expected);
        break;
    case 0x01:
        expected.calls.push_back(call_of(Kind::kWrite, message, 0));
        break;
    case 0x02:
        expect_acknowledged_write(message, expected);
        break;
    case 0xEE:
    case 0xDD:
    case 0xEF:
        expected.handed_over = 1;
        break;
    case 0xF0:
        expected.sent.push_back(greeting_to(message));
        break;
    default:
        break;
    }
    return expected;
}

Happened expected_of(const Bytes &message) {
    Happened expected;
    if (is_request(message)) {
        expected = expected_of_request(message);
        if ((field(message, 0, 4) & 0x00FFFF00) == (kOwn & 0x00FFFF00)) {
            expected.sent.clear(); // a request service would answer the reply
        }
    }
    return expected;
}

void take(const Bytes &message) {
    // Its own block of exactly that size: the address sanitizer sees a read of one byte too many.
    const std::unique_ptr<uint8_t[]> exact(new uint8_t[message.size()]);
    std::copy(message.begin(), message.end(), exact.get());
    g_happened = {};
    const int64_t before = mem_handed_out();
    const int result = ApipcEventDeal(0, 0, exact.get(), static_cast<int>(message.size()));
    require(result == 0, "the service takes every message");
    require(std::equal(message.begin(), message.end(), exact.get()), "a message is not changed");
    require(g_happened == expected_of(message),
            "a request reaches the link and its sender as its fields say, anything else nobody");
    require(mem_handed_out() == before, "every buffer goes back to the pool");
}

// Log lines and dumps are made, for the sake of their arguments, and go nowhere.
bool prepare() {
    require(freopen("/dev/null", "w", stdout) != nullptr, "there is a place for the output");
    require(mem_init() == 0, "there is memory for the pool");
    log_debug = 1;
    return true;
}

void repair(Bytes &message) {
    if (message.size() >= kHeader) {
        set_field(message, kKind, 2, 0);
        set_field(message, kClass, 2, 28);
    }
}

} // namespace

#pragma GCC visibility push(default)
extern "C" {

int __wrap_apcard_bit_self(void);
int __wrap_apipc_send(int aptid, void *msg, unsigned length);
int __wrap_RawSockSendMsg(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code,
                          const uint8_t *data, uint32_t len);
int __wrap_RawSockSendMsgWithAckWait(int index, uint16_t model, uint8_t slot, uint32_t addr,
                                     uint8_t code, const uint8_t *data, uint32_t len, uint8_t *ack,
                                     int32_t ticks);
int __wrap_RawSockSendMsgWithReadWait(int index, uint16_t model, uint8_t slot, uint32_t addr,
                                      uint8_t code, uint32_t len, uint8_t *read_buf,
                                      uint32_t *out_len, int32_t ticks);
int __wrap_sem_post(sem_t *semaphore);

int __wrap_apcard_bit_self(void) {
    return kCardSlot;
}

int __wrap_apipc_send(int aptid, void *msg, unsigned length) {
    const auto *bytes = static_cast<const uint8_t *>(msg);
    g_happened.sent.push_back({static_cast<uint32_t>(aptid), Bytes(bytes, bytes + length)});
    return 0;
}

int __wrap_RawSockSendMsg(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code,
                          const uint8_t *data, uint32_t len) {
    require(index == 0 && code == 0x01, "a plain write goes out on interface 0");
    g_happened.calls.push_back({Kind::kWrite, model, slot, addr, len, 0, Bytes(data, data + len)});
    return g_answers ? 0 : -1;
}

int __wrap_RawSockSendMsgWithAckWait(int index, uint16_t model, uint8_t slot, uint32_t addr,
                                     uint8_t code, const uint8_t *data, uint32_t len, uint8_t *ack,
                                     int32_t ticks) {
    require(index == 0 && code == 0x11, "an acknowledged write goes out on interface 0");
    require(*ack == 0, "the acknowledgement is cleared before the call");
    *ack = g_answers ? 0 : 0xFF;
    g_happened.calls.push_back(
        {Kind::kWriteAck, model, slot, addr, len, ticks, Bytes(data, data + len)});
    return g_answers ? 0 : -1;
}

// Answers with up to 1400 bytes, however few were asked for.
int __wrap_RawSockSendMsgWithReadWait(int index, uint16_t model, uint8_t slot, uint32_t addr,
                                      uint8_t code, uint32_t len, uint8_t *read_buf,
                                      uint32_t *out_len, int32_t ticks) {
    require(index == 0 && code == 0x00 && *out_len == 0, "a read goes out on interface 0");
    g_happened.calls.push_back({Kind::kRead, model, slot, addr, len, ticks, {}});
    if (!g_answers) {
        return -1;
    }
    memset(read_buf, kFilling, g_reply_len);
    *out_len = g_reply_len;
    return 0;
}

// Posted for every request that is left for the file thread, which does not run here.
int __wrap_sem_post(sem_t * /*semaphore*/) {
    g_happened.handed_over++;
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    constexpr uint32_t kLongestReply = 1400;
    static const bool is_prepared = prepare();
    require(is_prepared, "the pool is there");
    Input head(data, size);
    g_answers = head.byte() == 0;
    g_reply_len = head.word() % (kLongestReply + 1);
    const size_t skipped = std::min<size_t>(size, 3);
    Bytes message(data + skipped, data + size);
    take(message);
    repair(message);
    take(message);
    return 0;
}

} // extern "C"
#pragma GCC visibility pop

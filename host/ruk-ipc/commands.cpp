#include "commands.h"

#include "ap_msg/message_layout.h"
#include "arguments.h"
#include "eth_raw/frame_layout.h"
#include "numbers.h"

namespace ipc {

namespace {

constexpr uint32_t kMax8 = 0xFF;
constexpr uint32_t kMax16 = 0xFFFF;
constexpr uint32_t kMax32 = 0xFFFFFFFF;

// A card answers or has lost three attempts within 540 ms, but the service carries out one request
// after the other. Programming a card takes minutes.
constexpr uint32_t kRegisterTimeoutMs = 3000;
constexpr uint32_t kUpdateTimeoutMs = 600000;

template <typename Number>
bool store(std::optional<uint32_t> value, Number &into) {
    if (value) {
        into = static_cast<Number>(*value);
    }
    return value.has_value();
}

bool set_addr(Arguments &arguments, std::string_view text) {
    return store(parse_hex(text, kMax32), arguments.addr);
}

bool set_len(Arguments &arguments, std::string_view text) {
    return store(parse_count(text, 1, kLongestTransfer), arguments.len);
}

bool add_byte(Arguments &arguments, std::string_view text) {
    const auto value = parse_hex(text, kMax8);
    if (value) {
        arguments.bytes.push_back(static_cast<uint8_t>(*value));
    }
    return value.has_value();
}

bool set_width(Arguments &arguments, std::string_view text) {
    return store(parse_count(text, 1, kMax16), arguments.width);
}

bool set_height(Arguments &arguments, std::string_view text) {
    return store(parse_count(text, 1, kMax16), arguments.height);
}

bool set_kind(Arguments &arguments, std::string_view text) {
    return store(parse_hex(text, kMax32), arguments.kind);
}

bool set_file(Arguments &arguments, std::string_view text) {
    arguments.file = text;
    return !text.empty();
}

bool set_text(Arguments &arguments, std::string_view text) {
    arguments.text = text;
    return text.size() < kMaxPayload; // its NUL is sent too
}

constexpr ArgumentRow kAddr{"ADDR", Repeat::kOnce, "0 to ffffffff, hexadecimal", set_addr};
constexpr ArgumentRow kFile{"FILE", Repeat::kOnce, "a file name", set_file};
constexpr ArgumentRow kWidth{"WIDTH", Repeat::kOnce, "1 to 65535", set_width};
constexpr ArgumentRow kHeight{"HEIGHT", Repeat::kOnce, "1 to 65535", set_height};

constexpr ArgumentRow kReadArguments[] = {
    kAddr, {"LEN", Repeat::kOnce, "1 to 16777216, decimal or behind 0x hexadecimal", set_len}};
constexpr ArgumentRow kWriteArguments[] = {
    kAddr, {"BYTE", Repeat::kAny, "0 to ff, hexadecimal", add_byte}};
constexpr ArgumentRow kPictureArguments[] = {kAddr, kWidth, kHeight, kFile};
constexpr ArgumentRow kUpdateArguments[] = {
    {"KIND", Repeat::kOnce, "0 to ffffffff, hexadecimal", set_kind}, kFile};
constexpr ArgumentRow kHelloArguments[] = {
    {"TEXT", Repeat::kOptional, "a text of at most 1399 bytes", set_text}};

constexpr CommandRow kCommands[] = {
    {.word = "read",
     .code = message::kCodeRead,
     .reply = ReplyKind::kData,
     .timeout_ms = kRegisterTimeoutMs,
     .arguments = kReadArguments,
     .has_card = true,
     .has_address = true,
     .has_input = false,
     .has_output = true,
     .synopsis = "read ADDR LEN [--output FILE]",
     .meaning = "read LEN bytes from ADDR on and show them, or save them in FILE"},
    {.word = "write",
     .code = message::kCodeWrite,
     .reply = ReplyKind::kNone,
     .timeout_ms = 0,
     .arguments = kWriteArguments,
     .has_card = true,
     .has_address = true,
     .has_input = true,
     .has_output = false,
     .synopsis = "write ADDR BYTE... | write ADDR --input FILE",
     .meaning = "write bytes; nobody acknowledges them"},
    {.word = "write-ack",
     .code = message::kCodeWriteAck,
     .reply = ReplyKind::kHeader,
     .timeout_ms = kRegisterTimeoutMs,
     .arguments = kWriteArguments,
     .has_card = true,
     .has_address = true,
     .has_input = true,
     .has_output = false,
     .synopsis = "write-ack ADDR BYTE... | write-ack ADDR --input FILE",
     .meaning =
         "write bytes and wait until the card has answered, be it with a refusal, which\n"
         "      stands in the log of rukd only; to slot 1, model 0, addresses below 10000000\n"
         "      the service writes without acknowledgement"},
    {.word = "put-picture",
     .code = message::kCodePutPicture,
     .reply = ReplyKind::kNone,
     .timeout_ms = 0,
     .arguments = kPictureArguments,
     .has_card = true,
     .has_address = true,
     .has_input = false,
     .has_output = false,
     .synopsis = "put-picture ADDR WIDTH HEIGHT FILE",
     .meaning = "let the service write a picture file into the card's memory; it sends no reply"},
    {.word = "get-picture",
     .code = message::kCodeGetPicture,
     .reply = ReplyKind::kNone,
     .timeout_ms = 0,
     .arguments = kPictureArguments,
     .has_card = true,
     .has_address = true,
     .has_input = false,
     .has_output = false,
     .synopsis = "get-picture ADDR WIDTH HEIGHT FILE",
     .meaning = "let the service read a picture into FILE and FILE.bmp; it sends no reply"},
    {.word = "update",
     .code = message::kCodeUpdate,
     .reply = ReplyKind::kUpdate,
     .timeout_ms = kUpdateTimeoutMs,
     .arguments = kUpdateArguments,
     .has_card = true,
     .has_address = false,
     .has_input = false,
     .has_output = false,
     .synopsis = "update KIND FILE",
     .meaning = "let the service put firmware from FILE on a card; KIND is 16 to 1e"},
    {.word = "hello",
     .code = message::kCodeGreeting,
     .reply = ReplyKind::kGreeting,
     .timeout_ms = kRegisterTimeoutMs,
     .arguments = kHelloArguments,
     .has_card = false,
     .has_address = false,
     .has_input = false,
     .has_output = false,
     .synopsis = "hello [TEXT]",
     .meaning = "greet the service, which logs TEXT and greets back"},
};

} // namespace

std::span<const CommandRow> commands() {
    return kCommands;
}

const CommandRow *find_command(std::string_view word) {
    for (const CommandRow &row : kCommands) {
        if (word == row.word) {
            return &row;
        }
    }
    return nullptr;
}

} // namespace ipc

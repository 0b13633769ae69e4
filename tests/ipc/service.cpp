#include "service.h"

#include "board/board.h"

#include <cctype>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <utility>

namespace test {

namespace {

constexpr size_t kHeader = 40;
constexpr size_t kData = 38;

// Handlers take no context; each service is a process of its own.
std::function<void(const Bytes &)> g_script;
std::string g_log;

int handle(int /*a*/, int /*b*/, void *msg, int length) {
    const auto *bytes = static_cast<const uint8_t *>(msg);
    const Bytes message(bytes, bytes + length);
    std::ostringstream line;
    for (const uint8_t byte : message) {
        line << "0123456789abcdef"[byte >> 4] << "0123456789abcdef"[byte & 0xF];
    }
    std::ofstream(g_log, std::ios::app) << line.str() << "\n";
    g_script(message);
    return 0;
}

// Beside the message directory.
std::string log_name() {
    const char *directory = std::getenv("APIPC_DIR");
    return std::string(directory != nullptr ? directory : "") + ".received";
}

Bytes greeting() {
    Bytes message(112);
    put_number(message, 0, 4, kServiceAddress);
    put_number(message, 8, 4, 72);
    put_number(message, 18, 2, 28);
    put_number(message, 20, 4, 46);
    put_number(message, 26, 1, 0xF0);
    put_number(message, 36, 2, 32);
    const std::string text = "Hello, I am ruk module!";
    std::copy(text.begin(), text.end(), message.begin() + kData);
    return message;
}

} // namespace

Bytes from_hex(const std::string &text) {
    Bytes bytes;
    std::string digits;
    bool comment = false;
    for (const char c : text) {
        comment = c == '#' || (comment && c != '\n');
        if (!comment && std::isxdigit(static_cast<unsigned char>(c)) != 0) {
            digits += c;
        }
        if (digits.size() == 2) {
            bytes.push_back(static_cast<uint8_t>(std::stoul(digits, nullptr, 16)));
            digits.clear();
        }
    }
    return bytes;
}

Service::Service(std::function<void(const Bytes &message)> script)
    : log_(log_name()), process_([this, script = std::move(script)] {
          g_script = script;
          g_log = log_;
          if (apipc_init(static_cast<int>(kServiceAddress), 0) != 0) {
              return 1;
          }
          ready_.open();
          while (apipc_loop_wait(0, handle) == 0) {
          }
          return 1;
      }) {
    ready_.enter();
}

std::vector<Bytes> Service::received(size_t count) const {
    const Stopwatch watch;
    std::vector<Bytes> messages;
    do {
        messages.clear();
        std::ifstream log(log_);
        for (std::string line; std::getline(log, line) && !log.eof();) {
            messages.push_back(from_hex(line));
        }
    } while (messages.size() < count && watch.ms() < 5000 && usleep(1000) == 0);
    return messages;
}

uint32_t number_at(const Bytes &message, size_t offset, size_t width) {
    uint32_t value = 0;
    for (size_t i = width; i > 0; i--) {
        value = value << 8 | message.at(offset + i - 1);
    }
    return value;
}

void put_number(Bytes &message, size_t offset, size_t width, uint32_t value) {
    for (size_t i = 0; i < width; i++) {
        message.at(offset + i) = static_cast<uint8_t>(value >> (8 * i));
    }
}

Bytes reply_to(const Bytes &request, uint32_t result, const Bytes &data) {
    Bytes reply(request.begin(), request.begin() + kHeader);
    reply.resize(kHeader + data.size());
    std::copy(data.begin(), data.end(), reply.begin() + kData);
    put_number(reply, 0, 4, kServiceAddress);
    put_number(reply, 8, 4, static_cast<uint32_t>(data.size()));
    put_number(reply, 12, 4, result);
    put_number(reply, 24, 1, 0x3B);
    return reply;
}

Bytes memory_at(uint32_t addr, size_t len) {
    Bytes bytes(len);
    for (size_t i = 0; i < len; i++) {
        const auto at = addr + static_cast<uint32_t>(i);
        bytes[i] = static_cast<uint8_t>(at ^ (at >> 8) * 7);
    }
    return bytes;
}

void answer(const Bytes &request, Bytes message) {
    (void)apipc_send(static_cast<int>(number_at(request, 0, 4)), message.data(),
                     static_cast<unsigned>(message.size())); // the client may have ended
}

void do_nothing(const Bytes & /*request*/) {
}

void answer_well(const Bytes &request) {
    switch (number_at(request, 26, 1)) {
    case 0x00:
        answer(request, reply_to(request, 0,
                                 memory_at(number_at(request, 32, 4), number_at(request, 36, 2))));
        break;
    case 0x02:
        answer(request, reply_to(request));
        break;
    case 0xEF: {
        Bytes reply = reply_to(request);
        reply.resize(44);
        put_number(reply, 38, 4, number_at(request, 38, 4));
        answer(request, reply);
        break;
    }
    case 0xF0:
        answer(request, greeting());
        break;
    default:
        break;
    }
}

void refuse(const Bytes &request) {
    answer(request, reply_to(request, 0xFFFFFFFF));
}

} // namespace test

#include "tests/system/bed/service.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace bed {

namespace {

sockaddr_un socket_address(const std::string &directory, uint8_t module) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (void)snprintf(address.sun_path, sizeof address.sun_path, "%s/000a%02x", directory.c_str(),
                   module);
    return address;
}

void put(Bytes &to, size_t width, uint32_t value) {
    for (size_t i = 0; i < width; i++) {
        to.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
}

uint32_t take(const Bytes &from, size_t offset, size_t width) {
    uint32_t value = 0;
    for (size_t i = 0; i < width; i++) {
        value |= static_cast<uint32_t>(from[offset + i]) << (8 * i);
    }
    return value;
}

} // namespace

Launch rukd_command(const std::string &directory, const Words &arguments) {
    Words argv = {"rukd"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return {.argv = argv, .program = RUKD_PROGRAM, .in_child = [directory] {
                (void)setenv("APIPC_DIR", directory.c_str(), 1);
            }};
}

Service::Service(const std::string &directory) : process_(rukd_command(directory)) {
    if (!process_.await_output("rukd: ready")) {
        throw std::runtime_error("rukd did not start: " + process_.err());
    }
}

std::string Service::log() const {
    return process_.out();
}

int64_t Service::resident_bytes() const {
    std::ifstream file("/proc/" + std::to_string(process_.pid()) + "/statm");
    int64_t size = 0;
    int64_t resident = 0;
    file >> size >> resident;
    return resident * sysconf(_SC_PAGESIZE);
}

void Service::stop(const std::string &complaints) {
    process_.send(SIGTERM);
    EXPECT_EQ(process_.wait(), 0) << process_.err();
    EXPECT_EQ(process_.err(), complaints);
    EXPECT_NE(process_.out().find("rukd: ended\n"), std::string::npos);
}

Bytes to_bytes(const Message &message) {
    Bytes bytes;
    put(bytes, 4, message.aptid);
    put(bytes, 4, message.reserved);
    put(bytes, 4, message.data_len);
    put(bytes, 4, message.result);
    put(bytes, 2, static_cast<uint16_t>(message.kind));
    put(bytes, 2, static_cast<uint16_t>(message.class_));
    put(bytes, 4, message.id);
    put(bytes, 1, message.src);
    put(bytes, 1, message.target);
    put(bytes, 1, message.code);
    put(bytes, 1, message.slot);
    put(bytes, 2, message.model);
    put(bytes, 2, message.seq);
    put(bytes, 4, message.addr);
    put(bytes, 2, message.len);
    bytes.insert(bytes.end(), message.data.begin(), message.data.end());
    return bytes;
}

Message from_bytes(const Bytes &bytes) {
    return {.aptid = take(bytes, 0, 4),
            .reserved = take(bytes, 4, 4),
            .data_len = take(bytes, 8, 4),
            .result = take(bytes, 12, 4),
            .kind = static_cast<int16_t>(take(bytes, 16, 2)),
            .class_ = static_cast<int16_t>(take(bytes, 18, 2)),
            .id = take(bytes, 20, 4),
            .src = bytes[24],
            .target = bytes[25],
            .code = bytes[26],
            .slot = bytes[27],
            .model = static_cast<uint16_t>(take(bytes, 28, 2)),
            .seq = static_cast<uint16_t>(take(bytes, 30, 2)),
            .addr = take(bytes, 32, 4),
            .len = static_cast<uint16_t>(take(bytes, 36, 2)),
            .data = part(bytes, kMessageHead, bytes.size() - kMessageHead)};
}

Client::Client(std::string directory, uint8_t module)
    : directory_(std::move(directory)), module_(module),
      fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    const sockaddr_un own = socket_address(directory_, module_);
    if (bind(fd_, reinterpret_cast<const sockaddr *>(&own), sizeof own) != 0) {
        throw std::runtime_error(std::string("bind ") + own.sun_path + ": " + strerror(errno));
    }
}

Client::~Client() {
    (void)close(fd_);
    (void)unlink(socket_address(directory_, module_).sun_path);
}

uint32_t Client::address() const {
    return 0x000A0000U | static_cast<uint32_t>(module_) << 8;
}

bool Client::send(Message message) const {
    if (message.aptid == 0) {
        message.aptid = address();
    }
    message.src = module_;
    return send_bytes(to_bytes(message));
}

bool Client::send_bytes(const Bytes &bytes) const {
    const sockaddr_un service = socket_address(directory_, 0x3B);
    const ssize_t sent = sendto(fd_, bytes.data(), bytes.size(), 0,
                                reinterpret_cast<const sockaddr *>(&service), sizeof service);
    return sent == static_cast<ssize_t>(bytes.size());
}

Bytes Client::receive(Milliseconds at_most) const {
    const timeval wait{.tv_sec = at_most.count() / 1000, .tv_usec = at_most.count() % 1000 * 1000};
    (void)setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    Bytes bytes(65536);
    const ssize_t got = recv(fd_, bytes.data(), bytes.size(), 0);
    bytes.resize(got < 0 ? 0 : static_cast<size_t>(got));
    return bytes;
}

void expect_greeting(const Client &client) {
    ASSERT_TRUE(client.send({.code = kGreetingCode}));
    const Bytes reply = client.receive();
    ASSERT_EQ(reply.size(), 112U);
    EXPECT_EQ(from_bytes(reply).code, kGreetingCode);
}

} // namespace bed

// service.h - the request service as its clients see it: rukd, and the messages to and from it.
//
// Messages are built and taken apart here with offsets of this file's own.
#ifndef TESTS_SYSTEM_BED_SERVICE_H
#define TESTS_SYSTEM_BED_SERVICE_H

#include "tests/system/bed/bed.h"

#include <memory>

namespace bed {

/** rukd on eth0, ready when the constructor returns. Its message sockets are in directory. */
class Service {
public:
    explicit Service(const std::string &directory);
    [[nodiscard]] std::string log() const;
    /** Bytes of its memory that are in RAM. */
    [[nodiscard]] int64_t resident_bytes() const;
    /** End it with SIGTERM; fails the test when that is not its clean end with these complaints. */
    void stop(const std::string &complaints = "");

private:
    Process process_;
};

Launch rukd_command(const std::string &directory, const Words &arguments = {});

/** The fields of a message that tests choose or look at; the rest is 0, or for the service. */
struct Message {
    uint32_t aptid = 0; // sender
    uint32_t reserved = 0;
    uint32_t data_len = 0;
    uint32_t result = 0;
    int16_t kind = 0;
    int16_t class_ = 28;
    uint32_t id = 0;
    uint8_t src = 0;
    uint8_t target = 0xFE;
    uint8_t code = 0;
    uint8_t slot = 0;
    uint16_t model = 0;
    uint16_t seq = 0;
    uint32_t addr = 0;
    uint16_t len = 0;
    Bytes data = {};
};
constexpr size_t kMessageHead = 38;

Bytes to_bytes(const Message &message);
/** Data are what stands behind the head. At least 38 bytes. */
Message from_bytes(const Bytes &bytes);

/** A module of the local card that talks to the service. */
class Client {
public:
    Client(std::string directory, uint8_t module);
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;
    ~Client();

    [[nodiscard]] uint32_t address() const;
    /** Send to the service; the sender's address is filled in where it is 0. False: refused. */
    bool send(Message message) const;
    bool send_bytes(const Bytes &bytes) const;
    /** The next message; empty when none comes in time. */
    [[nodiscard]] Bytes receive(Milliseconds at_most = kHang) const;

private:
    std::string directory_;
    uint8_t module_;
    int fd_ = -1;
};

constexpr uint32_t kServiceAddress = 0x000A3B00; // on the card in slot 0
constexpr uint8_t kGreetingCode = 0xF0;

/** A round trip that shows that the service has carried out everything sent before. */
void expect_greeting(const Client &client);

} // namespace bed

#endif

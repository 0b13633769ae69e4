// service.h - a request service that does what a test tells it.
#ifndef RUK_TESTS_IPC_SERVICE_H
#define RUK_TESTS_IPC_SERVICE_H

#include "tests/board/process.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace test {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kServiceAddress = 0x030A3B00; // in slot 3

/** Bytes from hexadecimal text; blanks and what stands behind '#' on a line do not count. */
Bytes from_hex(const std::string &text);

/**
 * A process that is module 0x3B of slot 3 and calls the script with every message that it gets.
 * Each is kept for the test to look at.
 */
class Service {
public:
    explicit Service(std::function<void(const Bytes &message)> script);

    /** What it has got, once these are `count` messages or 5 s have passed. */
    [[nodiscard]] std::vector<Bytes> received(size_t count) const;

private:
    std::string log_;
    Gate ready_;
    Child process_;
};

/** Offsets as they are known to the service's other users, not taken from the client. */
uint32_t number_at(const Bytes &message, size_t offset, size_t width);
void put_number(Bytes &message, size_t offset, size_t width, uint32_t value);

/** The reply that a working service sends: the request's 40 bytes, changed, and data behind 38. */
Bytes reply_to(const Bytes &request, uint32_t result = 0, const Bytes &data = {});

/** What a memory holds whose every byte follows from its address. */
Bytes memory_at(uint32_t addr, size_t len);

/** Send to the sender of a request. */
void answer(const Bytes &request, Bytes message);

/** Scripts. */
void do_nothing(const Bytes &request);
void answer_well(const Bytes &request);
void refuse(const Bytes &request);

} // namespace test

#endif

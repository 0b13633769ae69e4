// service_message.h - messages to the service, built by hand.
#ifndef TESTS_UNIT_HELPERS_SERVICE_MESSAGE_H
#define TESTS_UNIT_HELPERS_SERVICE_MESSAGE_H

#include <cstdint>
#include <string>
#include <vector>

constexpr int kLenOfData = -1;

/** The fields that tests choose; the others stand in service_message.cpp. */
struct MessageFields {
    uint32_t aptid = 0x040A5500;
    int kind = 0;
    int message_class = 28;
    uint8_t id = 0xFE;
    uint8_t code = 0;
    uint8_t slot = 5;
    uint16_t model = 0x1234;
    uint16_t seq = 0x4142;
    uint32_t addr = 0x00ABCDEF;
    int len = kLenOfData;
    std::vector<uint8_t> data = {};
};

std::vector<uint8_t> message_with(const MessageFields &fields);

/** The 40 bytes that answer a message: its own with four fields changed. */
std::vector<uint8_t> reply_to(const std::vector<uint8_t> &message, uint32_t own_aptid,
                              uint32_t result, uint32_t data_len);

/** Give a message to the service, in memory of exactly its size. */
int deal(const std::vector<uint8_t> &message);

/** "aptid:... len:...\n", the service's line about a request. */
std::string request_line(const MessageFields &fields);

#endif

// service_client.h - a client of the request service, played by a case.
#ifndef SIMULATION_SERVICE_CLIENT_H
#define SIMULATION_SERVICE_CLIENT_H

#include "calls/messages.h"

#include <string>

namespace sim {

constexpr uint32_t kReadRequestCode = 0x00;
constexpr uint32_t kWriteRequestCode = 0x01;
constexpr uint32_t kWriteAckRequestCode = 0x02;
constexpr uint32_t kPutPictureCode = 0xEE;
constexpr uint32_t kGetPictureCode = 0xDD;
constexpr uint32_t kUpdateCode = 0xEF;

struct ServiceRequest {
    uint32_t requester;
    uint32_t code;
    uint32_t slot;
    uint32_t model;
    uint32_t addr;
    uint32_t len; // bytes wanted, or of data
    std::vector<uint8_t> data;
};

Message message_of(const ServiceRequest &request);

/** Data of a picture request: width, height, file name. */
std::vector<uint8_t> picture_data(uint32_t width, uint32_t height, const std::string &name);

struct ServiceReply {
    uint32_t addr;
    uint32_t result;
    std::vector<uint8_t> data;
};
ServiceReply reply_in(const Message &message);

/** Starts the service's two threads. */
void start_service();

} // namespace sim

#endif

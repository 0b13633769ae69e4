// request.h - the messages that a command sends.
#ifndef RUK_IPC_REQUEST_H
#define RUK_IPC_REQUEST_H

#include "arguments.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace ipc {

/** The module id in an address. */
constexpr uint32_t module_of(uint32_t address) {
    return (address >> 8) & 0xFF;
}

/** Which bytes of a transfer one request carries or asks for. */
struct Piece {
    uint32_t offset;
    uint32_t len;
};

struct Request {
    std::vector<uint8_t> bytes;
    ReplyKind reply;
    uint32_t addr;
    uint32_t len; // bytes that a read asks for or a write carries
};

/** What the message says of its sender and of its place in the sender's order. */
struct Origin {
    uint32_t address;
    uint16_t seq;
};

/** How many requests a transfer takes; 1 for what is no transfer. */
uint32_t piece_count(uint32_t total);

Piece piece_at(uint32_t total, uint32_t number);

/** The request for one piece; `data` are the piece's bytes for writes, empty otherwise. */
Request build_request(const Arguments &arguments, Piece piece, std::span<const uint8_t> data,
                      Origin origin);

/** Longest file name that a request of this command can carry. */
size_t longest_name(const CommandRow &command);

/** Empty, or the complaint that a transfer runs past the end of the address space. */
std::string check_range(const CommandRow &command, uint32_t addr, size_t len);

/** A number as the messages write it: 0x and 8 digits. */
std::string hex32(uint32_t value);

/** The same with as many digits as it has. */
std::string hex(uint32_t value);

} // namespace ipc

#endif

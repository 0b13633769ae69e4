#include "pictures/picture_text.h"

#include <array>
#include <cstdio>

#include "pictures/picture_registers.h"

namespace card {

namespace {

std::string memory_name(size_t index) {
    return " = ddr2 " + std::to_string(index);
}

std::string record_text(Bytes record) {
    if (record.size() != ddr2_record::kSize) {
        return " (wrong length)";
    }
    std::array<char, 48> text{};
    (void)std::snprintf(text.data(), text.size(), " addr %08x bursts %u mode %u",
                        load_le(record, ddr2_record::kAddr), load_le(record, ddr2_record::kBursts),
                        load_le(record, ddr2_record::kMode));
    return text.data();
}

std::string ddr2_write_text(size_t index, uint32_t addr, Bytes data) {
    const Ddr2Registers &at = kDdr2Registers[index];
    if (addr - at.data < kChunkWindow) {
        return memory_name(index) + " chunk offset " + std::to_string(addr - at.data);
    }
    if (addr == at.move) {
        return memory_name(index) + " move" + record_text(data);
    }
    if (addr == at.command) {
        return memory_name(index) + " read-back" + record_text(data);
    }
    return addr == at.start ? memory_name(index) + " start" : "";
}

std::string ddr2_read_text(size_t index, uint32_t addr) {
    const Ddr2Registers &at = kDdr2Registers[index];
    if (addr == at.data) {
        return memory_name(index) + " data";
    }
    return addr == at.status ? memory_name(index) + " status" : "";
}

std::string port_control_text(Bytes data) {
    if (data.size() == port_record::kSize) {
        return " = picture port size " + std::to_string(load_le(data, port_record::kWidth)) +
               " x " + std::to_string(load_le(data, port_record::kHeight));
    }
    if (data.size() != 1 || data[0] > kOn) {
        return ""; // an ordinary register to everybody else
    }
    return data[0] == kOn ? " = picture port start" : " = picture port stop";
}

} // namespace

std::string describe_picture_request(const wire::Request &request) {
    const bool is_read = request.code == wire::kCodeRead;
    for (size_t i = 0; i < kDdr2Memories; i++) {
        std::string text = is_read ? ddr2_read_text(i, request.addr)
                                   : ddr2_write_text(i, request.addr, request.data);
        if (!text.empty()) {
            return text;
        }
    }
    if (!is_read && request.addr == kPortControl) {
        return port_control_text(request.data);
    }
    return !is_read && request.addr == kPortData ? " = picture port pixels" : "";
}

} // namespace card

#include "bus_block/bus_block_text.h"

#include <array>
#include <cstdio>

#include "bus_block/bus_block_wire.h"

namespace card {

std::string describe_bus_block(Bytes frame) {
    constexpr std::array kNames = {"block-write", "block-read", "block-data", "block-response"};
    const uint32_t type = load_le(frame, bus::kType);
    std::array<char, 96> text{};
    (void)std::snprintf(text.data(), text.size(), "%s addr %08x len %u",
                        type < kNames.size() ? kNames[type] : "block-unknown",
                        load_le(frame, bus::kAddr), load_le(frame, bus::kDataLength));
    if (type != bus::kTypeResponse) {
        return text.data();
    }
    std::array<char, 16> flag{};
    (void)std::snprintf(flag.data(), flag.size(), " flag %02x", unsigned{frame[bus::kData]});
    return std::string(text.data()) + flag.data();
}

} // namespace card

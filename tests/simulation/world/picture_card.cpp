#include "world/picture_card.h"

#include <algorithm>

namespace sim {

namespace {

constexpr uint32_t kPortControl = 0x7040;
constexpr uint32_t kPortPixels = 0x40000;
constexpr uint32_t kFirmwareData = 0x18000000;
constexpr size_t kMemory = 64 * 1024;

struct Registers {
    uint32_t write_control;
    uint32_t read_command;
    uint32_t read_start;
    uint32_t read_status;
    uint32_t data;
};
constexpr Registers kRegisters[] = {{0xA0001, 0xA0008, 0xA00FF, 0xA0FFD, 0xB0000},
                                    {0xE0001, 0xE0008, 0xE00FF, 0xE0FFD, 0xF0000}};

struct Picture {
    Frame pixels;
    Frame collected;
    Frame memory;
    Frame firmware;
    uint32_t commanded_word = 0;
    uint32_t read_from = 0;
};
Picture g_pictures[kInterfaces];

uint32_t word_in(const uint8_t *data) {
    return data[0] | static_cast<uint32_t>(data[1]) << 8 | static_cast<uint32_t>(data[2]) << 16 |
           static_cast<uint32_t>(data[3]) << 24;
}

void store(Picture &picture, const uint8_t *record) {
    constexpr uint32_t kWord = 8;
    const size_t at = size_t{word_in(record)} * kWord;
    for (size_t i = 0; i < picture.collected.size() && at + i < picture.memory.size(); i++) {
        picture.memory[at + i] = picture.collected[i];
    }
    picture.collected.clear();
}

// The pieces of a chunk go to rising addresses.
bool is_data_register(const Registers &registers, uint32_t addr) {
    constexpr uint32_t kLongestChunk = 15360;
    return addr - registers.data < kLongestChunk;
}

bool is_firmware_register(uint32_t addr) {
    return (addr >= 0x11F00000 && addr <= 0x11F00010) || addr == 0x18200000 || addr == 0x18200002 ||
           addr == kFirmwareData;
}

} // namespace

void reset_picture_cards() {
    for (Picture &picture : g_pictures) {
        picture = {};
    }
}

bool is_picture_register(uint32_t addr) {
    return addr == kPortControl || addr == kPortPixels || is_firmware_register(addr) ||
           std::any_of(std::begin(kRegisters), std::end(kRegisters), [addr](const Registers &r) {
               return addr == r.write_control || addr == r.read_command || addr == r.read_start ||
                      addr == r.read_status || is_data_register(r, addr);
           });
}

void picture_register_written(int index, uint32_t addr, const uint8_t *data, uint32_t len) {
    Picture &picture = g_pictures[index];
    if (addr == kPortPixels) {
        picture.pixels.insert(picture.pixels.end(), data, data + len);
    } else if (addr == kFirmwareData) {
        picture.firmware.insert(picture.firmware.end(), data, data + len);
    } else if (addr == 0x11F00000) {
        picture.firmware.clear();
    }
    for (const Registers &r : kRegisters) {
        if (is_data_register(r, addr)) {
            picture.collected.insert(picture.collected.end(), data, data + len);
        } else if (addr == r.write_control && len >= 7) {
            (void)ddr2_memory(index);
            store(picture, data);
        } else if (addr == r.read_command && len >= 4) {
            picture.commanded_word = word_in(data);
        } else if (addr == r.read_start) {
            picture.read_from = picture.commanded_word * 8;
        }
    }
}

uint8_t picture_register_byte(int index, uint32_t addr, uint32_t offset) {
    Picture &picture = g_pictures[index];
    const bool is_data = addr == kRegisters[0].data || addr == kRegisters[1].data;
    const size_t at = size_t{picture.read_from} + offset;
    return is_data && at < ddr2_memory(index).size() ? picture.memory[at] : 0;
}

const Frame &port_pixels(int index) {
    return g_pictures[index].pixels;
}

Frame &ddr2_memory(int index) {
    Frame &memory = g_pictures[index].memory;
    if (memory.empty()) {
        memory.resize(kMemory);
    }
    return memory;
}

const Frame &firmware_image(int index) {
    return g_pictures[index].firmware;
}

} // namespace sim

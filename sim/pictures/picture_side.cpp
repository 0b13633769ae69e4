#include "pictures/picture_side.h"

namespace card {

namespace {

// The status register: 1 from the start of a command, which is done at once, to the next command.
void report_status(const Ddr2Registers &at, uint8_t status, Memory &registers) {
    memory_write(registers, at.status, Bytes(&status, 1));
}

bool write_ddr2(Ddr2 &ddr2, const Ddr2Registers &at, uint32_t addr, Bytes data, Memory &registers,
                Counters &counters) {
    if (addr - at.data < kChunkWindow) { // an address below the register wraps to a large number
        ddr2_fill(ddr2, addr - at.data, data);
    } else if (addr == at.move) {
        ddr2_move(ddr2, data, counters);
    } else if (addr == at.command) {
        if (ddr2_command(ddr2, data, counters)) {
            report_status(at, kOff, registers);
        }
    } else if (addr == at.start) {
        if (ddr2_start(ddr2, data, counters)) {
            report_status(at, kOn, registers);
        }
    } else {
        return false;
    }
    return true;
}

} // namespace

void picture_write(PictureSide &side, uint32_t addr, Bytes data, Memory &registers,
                   Counters &counters) {
    for (size_t i = 0; i < kDdr2Memories; i++) {
        if (write_ddr2(side.ddr2[i], kDdr2Registers[i], addr, data, registers, counters)) {
            return;
        }
    }
    if (addr == kPortControl) {
        port_control(side.port, data, counters);
    } else if (addr == kPortData) {
        port_pixels(side.port, data, counters);
    }
}

bool picture_read(PictureSide &side, const FifoRead &read, MutableBytes out, Counters &counters) {
    for (size_t i = 0; i < kDdr2Memories; i++) {
        if (read.addr == kDdr2Registers[i].data) {
            return ddr2_read(side.ddr2[i], read, out, counters);
        }
    }
    return false;
}

} // namespace card

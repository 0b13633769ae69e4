#include "main/main.h"

#include "base/stdout_guard.h"

#include <cstdio>

namespace {

constexpr uint32_t kGroup = 4; // bytes between two blanks
constexpr uint32_t kGroupsPerLine = 4;

void print_address(uint32_t address) {
    printf("\n%08x: ", address);
}

} // namespace

void process_recvbuf(const uint8_t *data, uint32_t base_address, uint32_t length) {
    if (data == nullptr) {
        return;
    }
    const StdoutGuard whole_dump;
    const uint32_t groups = length / kGroup;
    if (groups == 0) {
        print_address(base_address);
    }
    for (uint32_t i = 0; i < groups; i++) {
        if (i % kGroupsPerLine == 0) {
            print_address(base_address + kGroup * i);
        }
        const uint8_t *group = data + size_t{kGroup} * i;
        printf("%02x%02x%02x%02x ", group[0], group[1], group[2], group[3]);
    }
    for (uint32_t i = groups * kGroup; i < length; i++) {
        printf("%02x", data[i]);
    }
    printf("\n");
}

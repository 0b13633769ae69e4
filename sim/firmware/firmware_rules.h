// firmware_rules.h - what a transfer of firmware has to look like: its fields, blocks and head.
//
// Nothing here changes anything. Each check returns an empty text, or what is wrong.
#ifndef CARD_FIRMWARE_RULES_H
#define CARD_FIRMWARE_RULES_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "firmware/firmware_registers.h"
#include "wire/bytes.h"
#include "wire/wire.h"

namespace card {

/** A transfer as far as it came. */
struct FirmwareTransfer {
    bool running = false; // begun, and neither complete nor stopped
    uint8_t slot = 0;
    uint32_t total = 0; // bytes announced
    uint16_t device_type = 0;
    size_t fields = 0;   // how many fields came
    uint64_t blocks = 0; // how many blocks came
    std::vector<uint8_t> image{};
};

/** The field that this register takes, if it is one of the seven. */
std::optional<FirmwareField> find_firmware_field(uint32_t addr);
std::optional<FirmwareField> find_firmware_field(std::string_view name);

const FirmwareRegister &firmware_register(FirmwareField field);

/** Whether the transfer may go on with this write to the field's register. */
std::string check_firmware_field(const FirmwareTransfer &transfer, FirmwareField field,
                                 const wire::Request &request);

/** Whether this write to the data register is the transfer's next block. */
std::string check_firmware_block(const FirmwareTransfer &transfer, const wire::Request &request);

/** Whether the head, of which there are all 256 bytes, belongs to what follows it. */
std::string check_firmware_image(Bytes image);

} // namespace card

#endif

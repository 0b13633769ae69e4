#include "firmware/firmware_text.h"

#include <array>
#include <cstdio>

namespace card {

std::string describe_firmware_request(const FirmwareRequest &what) {
    const char *repeated = what.repeated ? ", repeated" : "";
    if (what.field) {
        return std::string(" = firmware field ") + firmware_register(*what.field).name + repeated;
    }
    if (what.repeated) {
        return std::string(" = firmware block") + repeated;
    }
    return what.block == 0 ? " = firmware block, stray"
                           : std::string(" = firmware block ") + std::to_string(what.block);
}

std::string bad_field_text(FirmwareField field, const std::string &wrong) {
    return std::string("firmware: bad field ") + firmware_register(field).name + ": " + wrong;
}

std::string stray_block_text(size_t size, const std::string &wrong) {
    return std::string("firmware: stray block of ") + std::to_string(size) + " bytes: " + wrong;
}

std::string stopped_text(const FirmwareTransfer &transfer) {
    std::string out =
        std::string("firmware: stopped after ") + std::to_string(transfer.image.size()) + " of " +
        std::to_string(transfer.total) + " bytes (" + std::to_string(transfer.blocks) + " blocks)";
    if (transfer.fields < kFirmwareFields) {
        out += std::string(", before field ") + kFirmwareRegisters[transfer.fields].name;
    }
    return out;
}

std::string complete_text(const FirmwareTransfer &transfer, const std::string &wrong) {
    std::array<char, 128> text{};
    (void)std::snprintf(text.data(), text.size(),
                        "firmware: %zu bytes for slot %u, device type 0x%04X, checksum %04X: ",
                        transfer.image.size() - firmware_head::kSize, unsigned{transfer.slot},
                        unsigned{transfer.device_type},
                        load_le(transfer.image, firmware_head::kChecksum));
    return text.data() + (wrong.empty() ? std::string("intact") : std::string("damaged: ") + wrong);
}

} // namespace card

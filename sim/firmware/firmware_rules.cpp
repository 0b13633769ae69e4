#include "firmware/firmware_rules.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace card {

namespace {

std::string number(uint64_t value) {
    return std::to_string(value);
}

std::string hex(uint32_t value, int digits) {
    std::array<char, 16> text{};
    (void)std::snprintf(text.data(), text.size(), "%0*X", digits, value);
    return text.data();
}

std::string expect_value(uint32_t value, uint32_t expected) {
    return value == expected
               ? ""
               : std::string("value ") + number(value) + ", expected " + number(expected);
}

// What the transfer waits for, in words.
std::string awaited(const FirmwareTransfer &transfer) {
    if (!transfer.running) {
        return "no transfer is running";
    }
    if (transfer.fields == kFirmwareFields) {
        return "blocks were expected";
    }
    return std::string(kFirmwareRegisters[transfer.fields].name) + " was expected";
}

// What holds for every write of a transfer.
std::string check_request(const wire::Request &request) {
    if (request.code != wire::kCodeWriteAck) {
        return "a plain write, expected an acknowledged one";
    }
    if (request.model != kFirmwareModel) {
        return std::string("model ") + hex(request.model, 4) + ", expected " +
               hex(kFirmwareModel, 4);
    }
    return "";
}

std::string check_slot(const FirmwareTransfer &transfer, const wire::Request &request) {
    return transfer.slot == request.slot
               ? ""
               : std::string("for slot ") + number(request.slot) + ", the transfer is for slot " +
                     number(transfer.slot);
}

std::string check_total(uint32_t value) {
    if (value >= firmware_head::kSize && value <= kMaxFirmwareTotal) {
        return "";
    }
    return std::string("value ") + number(value) + ", expected " + number(firmware_head::kSize) +
           " to " + number(kMaxFirmwareTotal);
}

std::string check_modelid(Bytes data, uint8_t slot) {
    const std::array<uint8_t, 3> expected = {0, 0, slot};
    if (std::ranges::equal(data, expected)) {
        return "";
    }
    return std::string("bytes ") + hex(data[0], 2) + " " + hex(data[1], 2) + " " + hex(data[2], 2) +
           ", expected 00 00 " + hex(slot, 2);
}

// The data are as long as the field.
std::string check_value(const FirmwareTransfer &transfer, FirmwareField field,
                        const wire::Request &request) {
    const uint32_t value = load_le(request.data, {0, request.data.size()});
    switch (field) {
    case FirmwareField::kTotalFilesSize:
        return check_total(value);
    case FirmwareField::kFilesRecvLen:
    case FirmwareField::kV:
        return expect_value(value, 0);
    case FirmwareField::kTotalFilesCount:
        return expect_value(value, 1);
    case FirmwareField::kCurrentFileSize:
        return expect_value(value, transfer.total);
    case FirmwareField::kDeviceType:
        return ""; // whatever device it is for
    case FirmwareField::kCardModelid:
        return check_modelid(request.data, request.slot);
    }
    return "";
}

// The first field begins a transfer at any time, for any slot.
std::string check_turn(const FirmwareTransfer &transfer, FirmwareField field,
                       const wire::Request &request) {
    if (field == FirmwareField::kTotalFilesSize) {
        return "";
    }
    if (!transfer.running || transfer.fields != static_cast<size_t>(field)) {
        return awaited(transfer);
    }
    return check_slot(transfer, request);
}

} // namespace

std::optional<FirmwareField> find_firmware_field(uint32_t addr) {
    const auto *const row = std::ranges::find(kFirmwareRegisters, addr, &FirmwareRegister::addr);
    if (row == kFirmwareRegisters.end()) {
        return std::nullopt;
    }
    return static_cast<FirmwareField>(row - kFirmwareRegisters.begin());
}

std::optional<FirmwareField> find_firmware_field(std::string_view name) {
    const auto *const row = std::ranges::find(kFirmwareRegisters, name, &FirmwareRegister::name);
    if (row == kFirmwareRegisters.end()) {
        return std::nullopt;
    }
    return static_cast<FirmwareField>(row - kFirmwareRegisters.begin());
}

const FirmwareRegister &firmware_register(FirmwareField field) {
    return kFirmwareRegisters[static_cast<size_t>(field)];
}

std::string check_firmware_field(const FirmwareTransfer &transfer, FirmwareField field,
                                 const wire::Request &request) {
    std::string wrong = check_request(request);
    if (wrong.empty()) {
        wrong = check_turn(transfer, field, request);
    }
    if (!wrong.empty()) {
        return wrong;
    }
    const size_t size = firmware_register(field).size;
    if (request.data.size() != size) {
        return number(request.data.size()) + " bytes, expected " + number(size);
    }
    return check_value(transfer, field, request);
}

std::string check_firmware_block(const FirmwareTransfer &transfer, const wire::Request &request) {
    std::string wrong = check_request(request);
    if (wrong.empty() && (!transfer.running || transfer.fields < kFirmwareFields)) {
        wrong = awaited(transfer);
    }
    if (wrong.empty()) {
        wrong = check_slot(transfer, request);
    }
    const size_t missing = transfer.total - transfer.image.size();
    if (wrong.empty() && request.data.size() > missing) {
        wrong = std::string("only ") + number(missing) + " bytes are missing";
    }
    return wrong.empty() && request.data.empty() ? "no bytes" : wrong;
}

std::string check_firmware_image(Bytes image) {
    const Bytes head = image.first(firmware_head::kSize);
    const Bytes firmware = image.subspan(firmware_head::kSize);
    const uint32_t size = load_le(head, firmware_head::kFirmwareSize);
    if (size != firmware.size()) {
        return std::string("the head says ") + number(size) + " bytes";
    }
    for (size_t i = 0; i < head.size(); i++) {
        const auto within = [i](Field field) {
            return i >= field.offset && i < field.offset + field.width;
        };
        const bool used = within(firmware_head::kFirmwareSize) || within(firmware_head::kChecksum);
        if (!used && head[i] != 0) {
            return std::string("byte ") + number(i) + " of the head is " + hex(head[i], 2) +
                   ", expected 00";
        }
    }
    const auto sum = static_cast<uint16_t>(kFirmwareChecksumStart + byte_sum(firmware));
    return sum == load_le(head, firmware_head::kChecksum)
               ? ""
               : std::string("the bytes give checksum ") + hex(sum, 4);
}

} // namespace card

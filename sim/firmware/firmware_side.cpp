#include "firmware/firmware_side.h"

#include <algorithm>
#include <numeric>
#include <utility>

#include "firmware/firmware_text.h"

namespace card {

namespace {

// Beyond so many reports that nobody took away yet only the counters tell.
constexpr size_t kMaxWaiting = 4096;

size_t waiting_bytes(const FirmwareSide &side) {
    return std::accumulate(
        side.reports.begin(), side.reports.end(), size_t{0},
        [](size_t sum, const FirmwareReport &report) { return sum + report.image.size(); });
}

void tell(FirmwareSide &side, FirmwareReport report, Counters &counters) {
    if (waiting_bytes(side) + report.image.size() > side.max_waiting_bytes) {
        report.image = {};
    }
    if (side.reports.size() < kMaxWaiting) {
        side.reports.push_back(std::move(report));
    } else if (side.keep_images && report.complete) {
        counters.firmware_save_errors++;
    }
}

void complain(FirmwareSide &side, std::string line, Counters &counters) {
    if (line != side.last_complaint) {
        side.last_complaint = line;
        tell(side, {.line = std::move(line)}, counters);
    }
}

// The end of a transfer before its time.
void stop(FirmwareSide &side, Counters &counters) {
    if (side.transfer.running) {
        counters.firmware_incomplete++;
        tell(side, {.line = stopped_text(side.transfer)}, counters);
        side.transfer = {};
    }
}

void begin(FirmwareSide &side, const wire::Request &request, Counters &counters) {
    side.number++;
    side.transfer = {};
    side.transfer.running = true;
    side.transfer.slot = request.slot;
    side.transfer.total = load_le(request.data, {0, request.data.size()});
    counters.firmware_transfers++;
    counters.firmware_transfer_blocks = 0;
    counters.firmware_transfer_bytes = 0;
}

void take_field(FirmwareSide &side, FirmwareField field, const wire::Request &request,
                Counters &counters) {
    const std::string wrong = check_firmware_field(side.transfer, field, request);
    if (!wrong.empty()) {
        counters.firmware_bad_fields++;
        complain(side, bad_field_text(field, wrong), counters);
        stop(side, counters);
        return;
    }
    if (field == FirmwareField::kTotalFilesSize) {
        stop(side, counters);
        begin(side, request, counters);
    } else if (field == FirmwareField::kDeviceType) {
        side.transfer.device_type = static_cast<uint16_t>(request.data[0] << 8 | request.data[1]);
    }
    side.transfer.fields++;
    side.last_complaint.clear();
    counters.firmware_transfer_fields = side.transfer.fields;
}

void complete(FirmwareSide &side, Counters &counters) {
    const std::string wrong = check_firmware_image(side.transfer.image);
    (wrong.empty() ? counters.firmware_intact : counters.firmware_damaged)++;
    FirmwareReport report{.line = complete_text(side.transfer, wrong), .complete = true};
    if (side.keep_images) {
        report.image = std::move(side.transfer.image);
    }
    side.transfer = {};
    tell(side, std::move(report), counters);
}

// Grows with what comes, not with what is announced, and never beyond that.
void make_room(FirmwareTransfer &transfer, size_t size) {
    const size_t wanted = transfer.image.size() + size;
    if (wanted > transfer.image.capacity()) {
        transfer.image.reserve(std::min<size_t>(transfer.total, 2 * wanted));
    }
}

void take_block(FirmwareSide &side, const wire::Request &request, Counters &counters) {
    FirmwareTransfer &transfer = side.transfer;
    const std::string wrong = check_firmware_block(transfer, request);
    if (!wrong.empty()) {
        counters.firmware_stray_blocks++;
        complain(side, stray_block_text(request.data.size(), wrong), counters);
        return;
    }
    make_room(transfer, request.data.size());
    transfer.image.insert(transfer.image.end(), request.data.begin(), request.data.end());
    transfer.blocks++;
    side.last_complaint.clear();
    counters.firmware_blocks++;
    counters.firmware_bytes += request.data.size();
    counters.firmware_transfer_blocks = transfer.blocks;
    counters.firmware_transfer_bytes = transfer.image.size();
    if (transfer.image.size() == transfer.total) {
        complete(side, counters);
    }
}

// The first field counts as repeated only while nothing else came after it. Later it begins a new
// transfer, because a sender that gives up and is started again sends the very same request.
bool is_repeated(const FirmwareSide &side, const FirmwareRequest &what, uint64_t mark) {
    return mark == side.number && (what.field != FirmwareField::kTotalFilesSize || side.first_only);
}

} // namespace

std::optional<FirmwareRequest> classify_firmware(const FirmwareSide &side,
                                                 const wire::Request &request, uint64_t mark) {
    FirmwareRequest what;
    what.to_data = request.addr == kFirmwareData;
    what.field = find_firmware_field(request.addr);
    if (request.code == wire::kCodeRead || (!what.to_data && !what.field)) {
        return std::nullopt;
    }
    what.repeated = is_repeated(side, what, mark);
    if (what.to_data && check_firmware_block(side.transfer, request).empty()) {
        what.block = side.transfer.blocks + 1;
    }
    return what;
}

std::optional<uint8_t> firmware_refusal(FirmwareSide &side, const FirmwareRequest &what) {
    if (what.repeated) {
        return std::nullopt;
    }
    const auto found = std::ranges::find_if(side.refusals, [&](const FirmwareRefusal &refusal) {
        return refusal.field ? refusal.field == what.field
                             : what.to_data && refusal.block == what.block;
    });
    if (found == side.refusals.end()) {
        return std::nullopt;
    }
    side.first_only = false;
    return found->status;
}

void firmware_write(FirmwareSide &side, const wire::Request &request, const FirmwareRequest &what,
                    Counters &counters) {
    if (what.repeated) {
        counters.firmware_repeats++;
        return;
    }
    if (what.field) {
        take_field(side, *what.field, request, counters);
    } else {
        take_block(side, request, counters);
    }
    side.first_only = what.field == FirmwareField::kTotalFilesSize;
}

void firmware_end(FirmwareSide &side, Counters &counters) {
    stop(side, counters);
}

} // namespace card

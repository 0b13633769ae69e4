// firmware_side.h - the registers that take firmware: seven fields, then blocks.
//
// It listens in on acknowledged writes, as the picture side does on all: what is written also goes
// to the register memory. There is one transfer at a time, whatever links its requests come from.
//
// A request that is sent again because its acknowledgement was lost must not count twice. So each
// request that was seen carries a mark: the number of the transfer during which that was. The mark
// is kept with the request in recent.h; 0 is that of a request never seen before.
#ifndef CARD_FIRMWARE_SIDE_H
#define CARD_FIRMWARE_SIDE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "faults/counters.h"
#include "firmware/firmware_rules.h"
#include "wire/wire.h"

namespace card {

/** Something to refuse: a field, or without one the N-th block of each transfer. */
struct FirmwareRefusal {
    std::optional<FirmwareField> field{};
    uint64_t block = 0; // from 1
    uint8_t status = 0;
};

/** Something to tell, and the firmware to save when it is about a complete transfer. */
struct FirmwareReport {
    std::string line{};
    bool complete = false;
    std::vector<uint8_t> image{}; // with its head; empty when nobody wants it or too many wait
};

struct FirmwareSide {
    std::vector<FirmwareRefusal> refusals{};
    bool keep_images = true;                      // false: only check them
    size_t max_waiting_bytes = kMaxFirmwareTotal; // of images in the reports; others are dropped
    FirmwareTransfer transfer;
    uint64_t number = 1;          // of the transfer, counted from 2: 1 is before the first one
    bool first_only = false;      // the last write that it heard of was one of the first field
    std::string last_complaint{}; // of a row of equal ones only the first is told
    std::vector<FirmwareReport> reports{}; // for the owner of the card to take away
};

/** What a request means here. */
struct FirmwareRequest {
    bool to_data = false;                 // a block
    std::optional<FirmwareField> field{}; // one of the fields
    bool repeated = false;                // seen before in this transfer
    uint64_t block = 0;                   // which block it is, or would be; 0: of no transfer
};

/** Nothing when the request is no write to one of these registers. */
std::optional<FirmwareRequest> classify_firmware(const FirmwareSide &side,
                                                 const wire::Request &request, uint64_t mark);

/** The status with which to refuse an acknowledged write, if it is to be refused. */
std::optional<uint8_t> firmware_refusal(FirmwareSide &side, const FirmwareRequest &what);

/** Carry a write out; the mark of its request is the side's `number` from then on. */
void firmware_write(FirmwareSide &side, const wire::Request &request, const FirmwareRequest &what,
                    Counters &counters);

/** Nothing more comes: tell of a transfer that is not complete. */
void firmware_end(FirmwareSide &side, Counters &counters);

} // namespace card

#endif

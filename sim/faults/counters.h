// counters.h - what the card saw and did, and its form as one JSON object.
#ifndef CARD_COUNTERS_H
#define CARD_COUNTERS_H

#include <array>
#include <cstdint>
#include <string>

#include "faults/faults.h"

namespace card {

/** The meaning of each counter stands with its JSON name in counters.cpp. */
struct Counters {
    uint64_t frames = 0;
    uint64_t requests = 0;
    uint64_t reads = 0;
    uint64_t writes = 0;
    uint64_t plain_writes = 0;
    uint64_t acknowledged_writes = 0;
    uint64_t bytes_read = 0;
    uint64_t bytes_written = 0;
    uint64_t resends = 0;
    uint64_t unanswered_requests = 0;
    uint64_t bad_frames = 0;
    uint64_t bad_length = 0;
    uint64_t bad_checksum = 0;
    uint64_t bad_code = 0;
    uint64_t bad_type = 0;
    uint64_t ignored_frames = 0;
    uint64_t ignored_other_protocol = 0;
    uint64_t ignored_markers = 0;
    uint64_t ignored_other_card = 0;
    uint64_t replies = 0;
    uint64_t read_replies = 0;
    uint64_t acknowledgements = 0;
    uint64_t overtaken_replies = 0;
    uint64_t noise_frames = 0;
    uint64_t send_errors = 0;
    uint64_t receive_errors = 0;
    uint64_t picture_bad_controls = 0;
    uint64_t ddr2_chunks = 0;
    uint64_t ddr2_short_chunks = 0;
    uint64_t ddr2_bytes_written = 0;
    uint64_t ddr2_refused = 0;
    uint64_t ddr2_commands = 0;
    uint64_t ddr2_fifo_restarts = 0;
    uint64_t ddr2_fifo_reads = 0;
    uint64_t ddr2_fifo_repeats = 0;
    uint64_t ddr2_fifo_short_reads = 0;
    uint64_t ddr2_bytes_read = 0;
    uint64_t port_pictures = 0;
    uint64_t port_complete = 0;
    uint64_t port_short = 0;
    uint64_t port_long = 0;
    uint64_t port_bytes = 0;
    uint64_t port_stray_blocks = 0;
    uint64_t pictures_saved = 0;
    uint64_t picture_save_errors = 0;
    uint64_t firmware_transfers = 0;
    uint64_t firmware_intact = 0;
    uint64_t firmware_damaged = 0;
    uint64_t firmware_incomplete = 0;
    uint64_t firmware_bad_fields = 0;
    uint64_t firmware_stray_blocks = 0;
    uint64_t firmware_repeats = 0;
    uint64_t firmware_blocks = 0;
    uint64_t firmware_bytes = 0;
    uint64_t firmware_transfer_fields = 0;
    uint64_t firmware_transfer_blocks = 0;
    uint64_t firmware_transfer_bytes = 0;
    uint64_t firmware_saved = 0;
    uint64_t firmware_save_errors = 0;
    uint64_t kernel_drops = 0;
    std::array<uint64_t, kFaultKinds> faults{};
};

/** Count each fault of the set once. */
void count_faults(Counters &counters, FaultSet set);

/** One JSON object on one line, without a line end. */
std::string counters_json(const Counters &counters);

/** The counters' names and meanings for --help, one per line. */
std::string counters_help();

} // namespace card

#endif

#include "faults/counters.h"

#include <nlohmann/json.hpp>

namespace card {

namespace {

struct CounterRow {
    const char *name;
    uint64_t Counters::*value;
    const char *meaning;
};

constexpr CounterRow kRows[] = {
    {"frames", &Counters::frames, "frames received on all interfaces"},
    {"requests", &Counters::requests, "good requests to this card, dropped ones included"},
    {"reads", &Counters::reads, "  of these: reads"},
    {"writes", &Counters::writes, "  of these: writes of both kinds"},
    {"plain_writes", &Counters::plain_writes, "  of the writes: those that want no answer"},
    {"acknowledged_writes", &Counters::acknowledged_writes, "  of the writes: those that want one"},
    {"bytes_read", &Counters::bytes_read, "bytes read from the memory for replies"},
    {"bytes_written", &Counters::bytes_written, "bytes written to the memory"},
    {"resends", &Counters::resends, "requests that repeat a recent one byte for byte"},
    {"unanswered_requests", &Counters::unanswered_requests,
     "reads and acknowledged writes, repeats not counted, that got no intact reply so far"},
    {"bad_frames", &Counters::bad_frames, "requests not answered because they are wrong"},
    {"bad_length", &Counters::bad_length, "  of these: length above 1400, or not the frame's"},
    {"bad_checksum", &Counters::bad_checksum, "  of these: wrong checksum"},
    {"bad_code", &Counters::bad_code, "  of these: unknown message code"},
    {"bad_type", &Counters::bad_type, "  of these: type field not 07 00"},
    {"ignored_frames", &Counters::ignored_frames, "frames that are no request to this card"},
    {"ignored_other_protocol", &Counters::ignored_other_protocol, "  of these: other addresses"},
    {"ignored_markers", &Counters::ignored_markers, "  of these: other markers"},
    {"ignored_other_card", &Counters::ignored_other_card, "  of these: another model or slot"},
    {"replies", &Counters::replies, "replies sent, corrupt ones and duplicates included"},
    {"read_replies", &Counters::read_replies, "  of these: to reads"},
    {"acknowledgements", &Counters::acknowledgements, "  of these: to acknowledged writes"},
    {"overtaken_replies", &Counters::overtaken_replies, "  of these: overtaken by a later one"},
    {"noise_frames", &Counters::noise_frames, "unrelated frames sent"},
    {"send_errors", &Counters::send_errors, "frames that could not be sent"},
    {"receive_errors", &Counters::receive_errors, "failed receives (interface down)"},
    {"picture_bad_controls", &Counters::picture_bad_controls,
     "writes to picture control registers that mean nothing"},
    {"ddr2_chunks", &Counters::ddr2_chunks, "chunks moved to the DDR2 memories"},
    {"ddr2_short_chunks", &Counters::ddr2_short_chunks,
     "  of these: a burst or more was missing (a frame was lost)"},
    {"ddr2_bytes_written", &Counters::ddr2_bytes_written,
     "bytes written to the DDR2 memories, whole bursts"},
    {"ddr2_refused", &Counters::ddr2_refused,
     "moves and read-backs outside the memory, or moves when it is full"},
    {"ddr2_commands", &Counters::ddr2_commands, "read-back commands started"},
    {"ddr2_fifo_restarts", &Counters::ddr2_fifo_restarts,
     "  of these: did not continue, so that the FIFO was emptied first"},
    {"ddr2_fifo_reads", &Counters::ddr2_fifo_reads,
     "reads from the read-back FIFOs, repeats not counted"},
    {"ddr2_fifo_repeats", &Counters::ddr2_fifo_repeats,
     "repeats of the last such read, given the same bytes again"},
    {"ddr2_fifo_short_reads", &Counters::ddr2_fifo_short_reads,
     "reads and repeats of these that found less than they asked for"},
    {"ddr2_bytes_read", &Counters::ddr2_bytes_read, "bytes read from the FIFOs"},
    {"port_pictures", &Counters::port_pictures, "pictures that the picture port received"},
    {"port_complete", &Counters::port_complete, "  of these: complete"},
    {"port_short", &Counters::port_short, "  of these: too short"},
    {"port_long", &Counters::port_long, "  of these: too long"},
    {"port_bytes", &Counters::port_bytes, "bytes of pixels that came between start and stop"},
    {"port_stray_blocks", &Counters::port_stray_blocks,
     "writes to the picture port while no picture was started"},
    {"pictures_saved", &Counters::pictures_saved, "pictures saved as files"},
    {"picture_save_errors", &Counters::picture_save_errors, "pictures that could not be saved"},
    {"firmware_transfers", &Counters::firmware_transfers, "transfers of firmware that began"},
    {"firmware_intact", &Counters::firmware_intact, "  of these: complete, head and bytes agree"},
    {"firmware_damaged", &Counters::firmware_damaged, "  of these: complete, but do not agree"},
    {"firmware_incomplete", &Counters::firmware_incomplete,
     "  of these: stopped before all bytes came"},
    {"firmware_bad_fields", &Counters::firmware_bad_fields,
     "writes to firmware fields out of their order or with a wrong value"},
    {"firmware_stray_blocks", &Counters::firmware_stray_blocks,
     "blocks of firmware that no transfer waited for"},
    {"firmware_repeats", &Counters::firmware_repeats,
     "repeats of such requests within a transfer, not taken again"},
    {"firmware_blocks", &Counters::firmware_blocks, "blocks of firmware taken"},
    {"firmware_bytes", &Counters::firmware_bytes, "bytes in these, heads included"},
    {"firmware_transfer_fields", &Counters::firmware_transfer_fields,
     "of the transfer that began last: fields taken"},
    {"firmware_transfer_blocks", &Counters::firmware_transfer_blocks, "  its blocks taken"},
    {"firmware_transfer_bytes", &Counters::firmware_transfer_bytes, "  its bytes taken"},
    {"firmware_saved", &Counters::firmware_saved, "firmware saved as files"},
    {"firmware_save_errors", &Counters::firmware_save_errors, "firmware that could not be saved"},
    {"kernel_drops", &Counters::kernel_drops, "frames the kernel dropped before the card saw them"},
};

} // namespace

void count_faults(Counters &counters, FaultSet set) {
    for (size_t i = 0; i < kFaultKinds; i++) {
        counters.faults[i] += set.has(static_cast<Fault>(i)) ? 1U : 0U;
    }
}

std::string counters_json(const Counters &counters) {
    nlohmann::ordered_json out;
    for (const CounterRow &row : kRows) {
        out[row.name] = counters.*row.value;
    }
    for (size_t i = 0; i < kFaultKinds; i++) {
        out["faults"][kFaultNames[i]] = counters.faults[i];
    }
    return out.dump();
}

std::string counters_help() {
    constexpr size_t kColumn = 28;
    std::string out;
    for (const CounterRow &row : kRows) {
        std::string line = std::string("  ") + row.name;
        line.resize(kColumn, ' ');
        out += line + row.meaning + "\n";
    }
    out += "  faults                    an object: how often each fault was committed\n   ";
    for (const char *name : kFaultNames) {
        out += std::string(" ") + name;
    }
    return out + "\n";
}

} // namespace card

// The bus block protocol: two threads of a process, one transfer at a time.
#include "cases/cases.h"

#include "calls/bus_semaphore.h"
#include "calls/link.h"
#include "calls/locks.h"
#include "memory/buffer.h"
#include "scheduler/choices.h"
#include "scheduler/scheduler.h"
#include "scheduler/settings.h"
#include "scheduler/trace.h"
#include "world/bus_card.h"
#include "world/host.h"
#include "world/roughness.h"

#include "eth_raw/bus_block.h"
#include "timer/timer.h"

namespace sim {

namespace {

EthRawTrans g_transfers[kInterfaces];
bool g_goes_on;

// Other traffic: without a time-out a read waits for frames, whatever they are.
void send_other_traffic() {
    if (!g_goes_on) {
        return;
    }
    send_to_board(0, Frame(60, 0x11));
    at(now() + 3 * kMillisecond, send_other_traffic);
}

void write_block(uint32_t addr, uint32_t len) {
    const Buffer data(len);
    for (uint32_t i = 0; i < len; i++) {
        data.get()[i] = bus_byte(addr + i);
    }
    const int result = Write_FPGA_Bus_Block(&g_transfers[0], addr, len, data.get());
    if (result != 0 && !is_excused()) {
        fail("a block write failed for no reason");
    }
}

void read_block(uint32_t addr, uint32_t len) {
    const Buffer data(len);
    const int result = Read_FPGA_Bus_Block(&g_transfers[0], addr, len, data.get());
    if (result != 0 && !is_excused()) {
        fail("a block read failed for no reason");
    }
    const bool must_be_there = !is_excused() && stolen_time() == 0;
    for (uint32_t i = 0; i < len; i++) {
        if (data.get()[i] != bus_byte(addr + i) && (must_be_there || data.get()[i] != kUntouched)) {
            fail("wrong byte %02x at %u of a block of %u bytes", data.get()[i], i, len);
        }
    }
}

void transfer_some(uint32_t transfers) {
    static const uint32_t kLengths[] = {1, 64, 100, 8000, 8001};
    for (uint32_t i = 0; i < transfers; i++) {
        const uint32_t addr = new_address() * 16;
        const uint32_t len = kLengths[g_choices.pick(5)];
        if (g_choices.pick(2) == 0) {
            write_block(addr, len);
        } else {
            read_block(addr, len);
        }
    }
}

void blocks(bool is_cancelled) {
    choose_roughness();
    g_settings.most_steps = 2000000;
    (void)initTimer();
    if (Open_Eth_Raw(g_transfers, kInterfaces) != 0) {
        fail("the interfaces cannot be opened");
    }
    g_goes_on = true;
    send_other_traffic();
    if (is_cancelled) {
        excuse();
    }
    const uint32_t transfers = 1 + g_choices.pick(2);
    const int one = start_host_thread("transfer 1", [=] { transfer_some(transfers); });
    const int two = start_host_thread("transfer 2", [=] { transfer_some(transfers); });
    if (is_cancelled) {
        host_sleep(g_choices.pick(5));
        cancel_host_thread(one);
    }
    join_host_thread(one);
    join_host_thread(two);
    calm_down();
    transfer_some(1);
    g_goes_on = false;
    if (!bus_semaphore_is_free() && !is_excused()) {
        fail("the board's semaphore is not free at the end");
    }
    must_hold_no_locks();
    if (heap_blocks_in_use() != 0) {
        fail("%lld blocks of the heap are lost", static_cast<long long>(heap_blocks_in_use()));
    }
}

const Case kCases[] = {
    {"blocks", "block transfers from two threads", [] { blocks(false); }, false},
    {"blocks-cancel", "one of them is cancelled", [] { blocks(true); }, false},
};

} // namespace

std::span<const Case> block_cases() {
    return kCases;
}

} // namespace sim

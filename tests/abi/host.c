/* host.c - a host program in plain C: uses a bit of every room that needs no rights. */
#include "ap_msg/ap_msg.h"
#include "eth_raw/bus_block.h"
#include "eth_raw/eth_raw.h"
#include "log/log.h"
#include "main/main.h"
#include "mem/mem.h"
#include "queue/queue.h"
#include "raw_msg/counters.h"
#include "raw_msg/raw_msg.h"
#include "timer/timer.h"

#include <signal.h>
#include <stdio.h>
#include <string.h>

static int g_failures = 0;

static void check(int holds, const char *what) {
    if (!holds) {
        (void)fprintf(stderr, "host: not so: %s\n", what);
        g_failures++;
    }
}

#define CHECK(condition) check((condition), #condition)

/* A write of four bytes to address 0x12345678 of card model 0x0201, slot 3, number 0x0605. */
static void pack_a_frame(void) {
    static const uint8_t header[28] = {0xEB, 0x90, 0xEB, 0x90, 0xEB, 0x90, 0x44, 0x44, 0x44, 0x44,
                                       0x44, 0x44, 0x07, 0x00, 0x55, 0xAA, 0x01, 0x02, 0x03, 0x05,
                                       0x06, 0x11, 0x78, 0x56, 0x34, 0x12, 0x04, 0x00};
    uint8_t *const payload = RawMsgBuffGet(4);
    uint8_t *frame = payload;
    uint32_t sum = 0x5555;
    uint32_t i = 0;
    CHECK(payload != NULL);
    if (payload == NULL) {
        return;
    }
    payload[0] = 0xFF;
    CHECK(RawMsgHeaderPack(0x0201, 3, 0x11, 0x12345678, 0x0605, &frame, 4) == 94);
    CHECK(frame == RawMsgBuffHeadGet(payload));
    CHECK(memcmp(frame, header, sizeof header) == 0);
    for (i = 16; i < 92; i++) {
        sum += frame[i];
    }
    CHECK(frame[92] == (sum & 0xFF) && frame[93] == sum >> 8);
    RawMsgBuffFree(payload);
}

/* Without sockets: the checks of a block transfer, and its checksum. */
static void refuse_a_block(void) {
    static const uint8_t frame[90] = {0x44, 0x44, 0x44, 0x44, 0x44, 0x44, 1, 2, 3};
    eth_init records[2];
    EthRawTrans xfer[2];
    memset(records, 0, sizeof records);
    CHECK(eth_raw_tranfser_set(records, xfer, 2) == 0 && xfer[1].addr == &records[1].addr);
    CHECK(Write_FPGA_Bus_Block(&xfer[0], 0, sizeof frame, frame) == -1); /* not open */
    CHECK(packet_checksum_calc(frame, 90) == 6 && judge_packet(frame, 90, 0) == -1);
}

static int g_calls = 0;

static void count_call(RawMsgQueueNode *record, void *data, uint32_t length) {
    g_calls++;
    CHECK(record->ack == 0 && record->recv_len == 8 && length == 8 && data == &g_calls);
}

static void queue_a_request(void) {
    RawMsgQueueNode *record = mem_alloc(sizeof *record);
    CHECK(record != NULL);
    if (record == NULL) {
        return;
    }
    memset(record, 0, sizeof *record);
    record->addr = 0x1000;
    record->seq = 7;
    queue_init();
    CHECK(queue_add(1, READ_WAIT_QUEUE, record) == 0);
    CHECK(queue_get(1, READ_WAIT_QUEUE) == record);
    timerStart(2, &record->timer);
    elapsed = 1;
    timerUpdate(1, 6);
    CHECK(elapsed == 0 && record->timer.remaining == 1);
    (void)queue_find(1, READ_WAIT_QUEUE, 0x1000, 0, 7, 8, count_call, &g_calls);
    CHECK(g_calls == 1);
    CHECK(queue_del(1, READ_WAIT_QUEUE, &record) == 0);
}

/* None of these comes back, or without a card: that they are there, as a C compiler sees them. */
static int (*const g_ptoc)(void) = ptoc;
static void (*const g_read_reg)(int, uint16_t, uint8_t, uint32_t, uint32_t) = read_reg;
static void (*const g_write_reg)(int, uint16_t, uint8_t, uint32_t) = write_reg;

/* Two records were queued and one frame was packed, but nothing was sent. */
static void read_counters(void) {
    ruk_counter_set counters;
    counters.size = sizeof counters;
    CHECK(ruk_counters(&counters) == 0 && counters.size == sizeof counters);
    CHECK(counters.frames_sent[0] == 0 && counters.queued[1][READ_WAIT_QUEUE] == 0);
    CHECK(counters.pool_in_use == 0 && counters.pool_free == 2);
}

static void handle_signals(void) {
    signal_handler before = SIG_IGN;
    (void)signal(SIGHUP, SIG_DFL); /* whoever started the test may ignore it */
    before = signal_set();
    CHECK(before == SIG_DFL);
    CHECK(signal(SIGSEGV, SIG_DFL) == task_die);
    CHECK(signal(SIGHUP, SIG_DFL) == SIG_IGN);
    putstackinfo(); /* shown nowhere, as log_debug is 0 */
    CHECK(g_ptoc != NULL && g_read_reg != NULL && g_write_reg != NULL);
}

int main(void) {
    uint8_t *message = NULL;
    CHECK(log_debug == 0 && log_d == 0 && log_fp == NULL);
    CHECK(strcmp(g_netdev_name[2], "eth2") == 0 && g_eth_init[2].flag == 0 && print_flag == 0);
    CHECK(read_buffer == NULL && sizeof gRecvBuffer == 1450);
    pack_a_frame();
    refuse_a_block();
    queue_a_request();
    read_counters();
    handle_signals();
    CHECK(sem_init(&sem_test, 0, 0) == 0);
    post_test();
    CHECK(sem_trywait(&sem_test) == 0);
    message = ApMsgBuffGet(100);
    CHECK(message != NULL && ApMsgBuffHeadGet(message) == message - 38);
    ApMsgBuffFree(message);
    CHECK(mem_uinit() == 0);
    return g_failures != 0;
}

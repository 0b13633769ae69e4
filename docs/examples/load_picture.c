/* load_picture.c - write a 24-bit BMP file into the first DDR2 memory of the FPGA on eth1. */
#include "eth_raw/eth_raw.h"
#include "log/log.h"
#include "main/main.h"
#include "mem/mem.h"
#include "raw_msg/raw_msg.h"

#include <stdio.h>
#include <stdlib.h>

enum { INTERFACE = 1, STATUS = 0xA0FFD, TICKS = 100 }; /* of 30 ms, waited for three times: 9 s */

int main(int argc, char **argv) {
    pthread_t receiver = 0;
    pthread_t checker = 0;
    uint8_t answer[RUK_MAX_DATA]; /* a reply may carry more than was asked for */
    uint32_t received = 0;
    int failed = 1;
    if (argc != 4) {
        fprintf(stderr, "usage: load_picture WIDTH HEIGHT FILE\n");
        return 2;
    }
    log_debug = 1;
    queue_init();
    if (mem_init() != 0 || sem_init(&sem_test, 0, 0) != 0 || initTimer() != 0) {
        return 1;
    }
    (void)RawMsgModuleInit(INTERFACE, &receiver, &checker);
    if (g_eth_init[INTERFACE].flag == 1 && receiver != 0 && checker != 0) {
        failed = LoadPicture(0, (uint32_t)strtoul(argv[1], NULL, 10),
                             (uint32_t)strtoul(argv[2], NULL, 10), argv[3], "-e", "-1B") != 0;
        /* Nothing answers the picture; an answer behind it says that the card is there and has
         * worked through what came. It is late from a card that is still storing. */
        failed |= RawSockSendMsgWithReadWait(INTERFACE, 0, 0, STATUS, RAW_MSG_CODE_READ, 1, answer,
                                             &received, TICKS) != 0;
    }
    return failed; /* the end of the process ends the threads and closes the link */
}
